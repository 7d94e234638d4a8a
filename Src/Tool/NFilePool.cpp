#include "Tool/NFilePool.h"

#include <new>

#include "Tool/FileThreads.h"

namespace Veltro::Ravelo {

namespace {

/// The process's pool, and how many file buffers use it.
struct SSharedPool {
    Plinth::CMutex mutex;
    CNBufPool* pool PLINTH_GUARDED_BY(mutex) = nullptr;
    unsigned users PLINTH_GUARDED_BY(mutex) = 0;
    bool kept PLINTH_GUARDED_BY(mutex) = false;  // one user more: files come and go, and want it again

    static SSharedPool& get() {
        static auto* instance = new SSharedPool;  // never destroyed: files may go while the statics do
        return *instance;
    }
};

/// Its bytes are left as they come: a block is read no further than it was filled.
std::unique_ptr<SNBufBlock> newBlock() {
    return std::unique_ptr<SNBufBlock>(new (std::nothrow) SNBufBlock);
}

}  // namespace

CNBufPool::CNBufPool() {
    for (unsigned i = 0; i < INITIAL_BLOCKS; ++i) {
        auto block = newBlock();
        if (!block) return;
        Push(std::move(block));
    }
}

CNBufPool::~CNBufPool() {
    while (m_head != nullptr) {
        const std::unique_ptr<SNBufBlock> block(m_head);
        m_head = block->next;
    }
}

std::unique_ptr<SNBufBlock> CNBufPool::Pop() {
    {
        Plinth::CLockGuard guard(m_mutex);
        if (m_head != nullptr) {
            std::unique_ptr<SNBufBlock> block(m_head);
            m_head = block->next;
            if (m_head == nullptr) m_tail = nullptr;
            --m_count;
            return block;
        }
    }
    return newBlock();
}

void CNBufPool::Push(std::unique_ptr<SNBufBlock> block) {
    if (!block) return;
    Plinth::CLockGuard guard(m_mutex);
    if (m_count > KEPT_BLOCKS) return;
    block->next = nullptr;
    SNBufBlock* last = block.release();
    if (m_tail == nullptr) {
        m_head = last;
    } else {
        m_tail->next = last;
    }
    m_tail = last;
    ++m_count;
}

unsigned CNBufPool::Size() {
    Plinth::CLockGuard guard(m_mutex);
    return m_count;
}

CNBufPool* CNBufPool::join() {
    SSharedPool& shared = SSharedPool::get();
    Plinth::CLockGuard guard(shared.mutex);
    if (shared.pool == nullptr) shared.pool = new (std::nothrow) CNBufPool;
    if (shared.pool == nullptr) return nullptr;
    ++shared.users;
    if (!shared.kept && FileThreads::areRunning()) {
        shared.kept = true;
        ++shared.users;
    }
    return shared.pool;
}

void CNBufPool::leave() {
    SSharedPool& shared = SSharedPool::get();
    std::unique_ptr<CNBufPool> last;
    {
        Plinth::CLockGuard guard(shared.mutex);
        if (--shared.users > 0) return;
        last.reset(shared.pool);
        shared.pool = nullptr;
    }
}

void CNBufPool::forget() {
    SSharedPool& shared = SSharedPool::get();
    {
        Plinth::CLockGuard guard(shared.mutex);
        if (!shared.kept) return;
        shared.kept = false;
    }
    leave();
}

}  // namespace Veltro::Ravelo
