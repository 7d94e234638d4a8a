#include "Tool/FileThreads.h"

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <Ravelo/TsMemory.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <vector>

#include "Core/CurrentObject.h"
#include "Core/EventPool.h"
#include "Core/Message.h"
#include "Log.h"
#include "Tool/NFilePool.h"

namespace Veltro::Ravelo {

namespace {

thread_local bool t_is_file_thread = false;

}  // namespace

/// The list of files that have jobs, of messages to deliver, and the threads that serve both.
class CFileThreads {
public:
    static CFileThreads& get() {
        static auto* instance = new CFileThreads;  // never destroyed: threads may call while the statics go
        return *instance;
    }

    int start(unsigned processors);
    void stop();
    bool areRunning() const { return m_running.load(std::memory_order_relaxed); }
    bool isStopping() const { return m_stopping.load(std::memory_order_relaxed); }

    bool queue(CFileJobs& file, std::uint32_t type, std::int64_t argument);
    bool queueMessage();

private:
    /// What a file thread has taken; neither means that there is nothing to do.
    struct STaken {
        CFileJobs* file = nullptr;
        SFileJob* job = nullptr;
        std::int64_t argument = 0;
        bool message = false;
    };

    void threadProc();
    bool serve(CCurrentObject* current);
    STaken take();
    bool finish(CFileJobs& file);
    void list(CFileJobs& file) PLINTH_REQUIRES(m_mutex);

    Plinth::CMutex m_mutex;          // guards the lists, and the jobs of every file
    Plinth::CSemaphore m_semaphore;  // counts what is listed
    CFileJobs* m_head PLINTH_GUARDED_BY(m_mutex) = nullptr;
    CFileJobs* m_tail PLINTH_GUARDED_BY(m_mutex) = nullptr;
    std::uint64_t m_messages PLINTH_GUARDED_BY(m_mutex) = 0;  // jobs of the type 4: all are alike
    bool m_message_turn PLINTH_GUARDED_BY(m_mutex) = false;   // files and messages take turns
    std::atomic<bool> m_running{false};                       // changed under m_mutex
    std::atomic<bool> m_stopping{false};
    std::vector<std::unique_ptr<Plinth::CThreadLite>> m_threads;  // the creation mutex's
};

int CFileThreads::start(unsigned processors) {
    const unsigned wanted = 2 * std::max(processors, 1U);
    try {
        for (unsigned i = 0; i < wanted; ++i) {
            m_threads.push_back(std::make_unique<Plinth::CThreadLite>(
                [this](Plinth::CThreadLite&) { threadProc(); }, "Ravelo::FileThread"));
            if (!m_threads.back()->createThread()) throw std::bad_alloc();
        }
    } catch (const std::bad_alloc&) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "no memory or no thread for %u file threads\n", wanted);
        stop();
        return -1;
    }
    {
        Plinth::CLockGuard guard(m_mutex);
        m_running.store(true);
    }
    for (unsigned waiting = CMessage::waitingIo(); waiting > 0; --waiting) queueMessage();
    return 0;
}

/// A thread leaves when it finds nothing listed. What a running job lists afterwards, that job's own thread
/// does before it leaves in its turn; what comes later still is refused, or done here.
void CFileThreads::stop() {
    m_stopping.store(true);
    for (std::size_t i = 0; i < m_threads.size(); ++i) m_semaphore.post();
    for (auto& thread : m_threads) thread->destroyThread();
    {
        Plinth::CLockGuard guard(m_mutex);
        m_running.store(false);
        m_messages = 0;
    }
    while (serve(nullptr)) {
    }
    while (m_semaphore.tryPend()) {
    }
    m_threads.clear();
    CNBufPool::forget();
    m_stopping.store(false);
}

void CFileThreads::threadProc() {
    t_is_file_thread = true;
    CTsMemory::CreateMemPool();
    {
        CCurrentObject current;
        const CEventPool::CThreadList records;
        do {
            m_semaphore.pend();
        } while (serve(&current) || !isStopping());
    }
    CTsMemory::DestroyThreadMemPool();
}

/// Does one job, and then another for each that it left behind; false when there was none.
bool CFileThreads::serve(CCurrentObject* current) {
    STaken taken = take();
    const bool found = taken.message || taken.file != nullptr;
    while (taken.file != nullptr) {
        taken.file->m_calls.run(*taken.file, taken.job->type, taken.argument);
        if (!finish(*taken.file)) break;
        taken = take();
    }
    if (taken.message) CMessage::dispatchIo(*current);
    return found;
}

CFileThreads::STaken CFileThreads::take() {
    STaken taken;
    Plinth::CLockGuard guard(m_mutex);
    m_message_turn = !m_message_turn;
    if (m_messages > 0 && (m_message_turn || m_head == nullptr)) {
        --m_messages;
        taken.message = true;
        return taken;
    }
    if (m_head == nullptr) return taken;
    taken.file = m_head;
    m_head = m_head->m_next;
    if (m_head == nullptr) m_tail = nullptr;
    taken.job = taken.file->m_head;
    taken.file->m_head = taken.job->next;
    taken.argument = taken.job->argument;
    taken.job->queued = false;  // from now on it can be queued anew
    return taken;
}

/// Puts a file that has more jobs at the end of the list. Whether it has: the calling thread takes the next
/// of the list then, so that nobody need be woken.
bool CFileThreads::finish(CFileJobs& file) {
    {
        Plinth::CLockGuard guard(m_mutex);
        file.m_listed = file.m_head != nullptr;
        if (file.m_listed) {
            list(file);
            return true;
        }
    }
    file.m_calls.release(file);
    return false;
}

void CFileThreads::list(CFileJobs& file) {
    file.m_next = nullptr;
    if (m_tail == nullptr) {
        m_head = &file;
    } else {
        m_tail->m_next = &file;
    }
    m_tail = &file;
}

bool CFileThreads::queue(CFileJobs& file, std::uint32_t type, std::int64_t argument) {
    {
        Plinth::CLockGuard guard(m_mutex);
        if (!m_running.load()) return false;
        SFileJob& job = file.job(type);
        job.argument = job.queued ? std::max(job.argument, argument) : argument;
        if (job.queued) return true;
        job.queued = true;
        job.next = nullptr;
        if (file.m_head == nullptr) {
            file.m_head = &job;
        } else {
            file.m_tail->next = &job;
        }
        file.m_tail = &job;
        if (file.m_listed) return true;
        file.m_listed = true;
        file.m_calls.hold(file);
        list(file);
    }
    m_semaphore.post();
    return true;
}

bool CFileThreads::queueMessage() {
    {
        Plinth::CLockGuard guard(m_mutex);
        if (!m_running.load()) return false;
        ++m_messages;
    }
    m_semaphore.post();
    return true;
}

bool CFileJobs::queue(std::uint32_t type, std::int64_t argument) {
    return CFileThreads::get().queue(*this, type, argument);
}

SFileJob& CFileJobs::job(std::uint32_t type) {
    if (type == FILE_JOB_WRITE) return m_write;
    return type == FILE_JOB_READ ? m_read : m_close;
}

int FileThreads::start(unsigned processors) {
    return CFileThreads::get().start(processors);
}

void FileThreads::stop() {
    CFileThreads::get().stop();
}

void FileThreads::deliverIoMessage() {
    CFileThreads::get().queueMessage();
}

bool FileThreads::areRunning() {
    return CFileThreads::get().areRunning();
}

bool FileThreads::isOwnThread() {
    return t_is_file_thread;
}

bool FileThreads::isOwnThreadStopping() {
    return t_is_file_thread && CFileThreads::get().isStopping();
}

}  // namespace Veltro::Ravelo
