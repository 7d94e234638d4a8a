#include <Ravelo/NetHandler.h>
#include <Ravelo/TsMemory.h>

#include <Plinth/TypeName.h>

#include "Core/Message.h"
#include "Core/NetHandlerRecord.h"
#include "Core/NetSock.h"
#include "Core/NetTimer.h"
#include "Core/PoolTable.h"
#include "Core/ThreadPool.h"
#include "Log.h"

namespace Veltro::Ravelo {

CHandlerShare::CHandlerShare(SNetHandlerRecord& record) : m_record(&record), m_handler(record.entry.handler) {
    record.holders.fetch_add(1, std::memory_order_relaxed);
}

CHandlerShare::~CHandlerShare() {
    if (m_record != nullptr) m_record->leave();
}

std::string SNetHandlerRecord::className(const CNetHandler* handler) {
    return Plinth::readableTypeName(typeid(*handler));
}

namespace {

/// Holds a reference for the time of a call, if the handler is open. Without the lock: a handler that is
/// being closed meanwhile has left its pool's table before its last reference goes, and gives none any more.
class COpenHandler {
public:
    explicit COpenHandler(CNetHandler& handler) : m_handler(handler) {
        SNetHandlerRecord& record = SNetHandlerRecord::of(handler);
        m_open = record.__m_magic.load() == MAGIC_OPEN && record.references.addIfBound();
    }
    ~COpenHandler() {
        if (m_open) m_handler.DecRef();
    }
    COpenHandler(const COpenHandler&) = delete;
    COpenHandler& operator=(const COpenHandler&) = delete;
    explicit operator bool() const { return m_open; }

private:
    CNetHandler& m_handler;
    bool m_open;
};

}  // namespace

CNetHandler::CNetHandler() : CNetHandler(0) {}

CNetHandler::CNetHandler(int pool_number) : m_internal(new SNetHandlerRecord) {
    const CPoolPin pool(pool_number);
    if (!pool) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_FATAL, "Can't find the thread pool %d, create thread pool first!\n",
                        pool_number);
        RAVELO_ASSERT(0);
    }
    pool->bind(*this, *m_internal);
}

CNetHandler::~CNetHandler() {
    const auto __m_magic = m_internal->__m_magic.load();
    RAVELO_ASSERT(__m_magic == 0x0202);
    if (m_internal->sockets.load() > 0) {
        RAVELO_LOG_THIS(
            Plinth::LOG_LEVEL_ERROR,
            "some sockets registered on obj %p has not been removed, please remove it before close the "
            "obj!\n",
            static_cast<const void*>(this));
    }
    m_internal->leave();
}

int CNetHandler::handle_input(int) {
    return -1;
}
int CNetHandler::handle_output(int) {
    return -1;
}
int CNetHandler::handle_exception(int) {
    return -1;
}
int CNetHandler::handle_input_timeout(int) {
    return -1;
}
int CNetHandler::handle_output_timeout(int) {
    return -1;
}
int CNetHandler::handle_exception_timeout(int) {
    return -1;
}
std::int64_t CNetHandler::handle_timeout(long) {
    return -1;
}
int CNetHandler::handle_close(CNetHandler*) {
    return -1;
}
int CNetHandler::handle_message(long, unsigned int, long) {
    return -1;
}

void CNetHandler::Close() {
    // The close message may end this object on another thread as soon as it is posted.
    {
        Plinth::CLockGuard guard(m_internal->mutex);
        if (m_internal->__m_magic != MAGIC_OPEN) return;
        m_internal->__m_magic = MAGIC_CLOSED;
        AddRef();
    }
    CMessage::NotifyClose(*m_internal);
    DecRef();
}

long CNetHandler::GetID() {
    return static_cast<long>(static_cast<std::int32_t>(m_internal->id()));
}

void CNetHandler::SetDefaultRcer(long id) {
    m_internal->default_receiver.store(id);
}

void CNetHandler::AddRef() {
    m_internal->references.add();
}

void CNetHandler::DecRef() {
    if (!m_internal->references.drop()) return;
    {
        Plinth::CLockGuard guard(m_internal->mutex);
        if (m_internal->closing != 0) return;
        m_internal->closing = 1;
    }
    handle_close(this);
}

void CNetHandler::AddSock() {
    m_internal->sockets.fetch_add(1);
}
void CNetHandler::DecSock() {
    m_internal->sockets.fetch_sub(1);
}

int CNetHandler::RegisterSock(CSock& sock, unsigned int mask, int timeout) {
    const COpenHandler open(*this);
    return open ? CNetSock::RegisterSock(*this, sock, mask, timeout) : -1;
}

int CNetHandler::UnregisterSock(CSock& sock, unsigned int mask) {
    return CNetSock::UnregisterSock(*this, sock, mask);
}

int CNetHandler::RemoveSock(CSock& sock) {
    return CNetSock::RemoveSock(*this, sock);
}

int CNetHandler::CheckSock(CSock& sock) {
    return CNetSock::CheckSock(*this, sock);
}

long CNetHandler::SetTimer(std::int64_t period) {
    const COpenHandler open(*this);
    return open ? CNetTimer::SetTimer(*m_internal, period) : -1;
}

void CNetHandler::DestroyTimer(long timer_id) {
    CNetTimer::DestroyTimer(*m_internal, timer_id);
}

void CNetHandler::Notify(long receiver, unsigned int type, long info) {
    CMessage::Notify(m_internal->id(), receiver, type, info, false);
}

void CNetHandler::Notify(unsigned int type, long info) {
    Notify(static_cast<long>(m_internal->default_receiver.load()), type, info);
}

void CNetHandler::NotifySerial(long receiver, unsigned int type, long info, unsigned int flag) {
    CMessage::NotifySerial(m_internal->id(), receiver, type, info, flag);
}

void CNetHandler::NotifySerial(unsigned int type, long info, unsigned int flag) {
    NotifySerial(static_cast<long>(m_internal->default_receiver.load()), type, info, flag);
}

void CNetHandler::NotifyIO(long receiver, unsigned int type, long info) {
    CMessage::Notify(m_internal->id(), receiver, type, info, true);
}

void CNetHandler::NotifyIO(unsigned int type, long info) {
    NotifyIO(static_cast<long>(m_internal->default_receiver.load()), type, info);
}

void* CNetHandler::TsMalloc(unsigned int size) {
    return CTsMemory::TsMalloc(size);
}
void CNetHandler::TsFree(void* block) {
    CTsMemory::TsFree(block);
}
void* CNetHandler::Malloc(unsigned int size) {
    return CTsMemory::Malloc(size);
}
void CNetHandler::Free(void* block) {
    CTsMemory::Free(block);
}

}  // namespace Veltro::Ravelo
