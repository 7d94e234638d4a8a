#include "Core/Message.h"

#include <Ravelo/NetHandler.h>

#include "Core/CurrentObject.h"
#include "Core/EventPool.h"
#include "Core/EventQueue.h"
#include "Core/NetHandlerRecord.h"
#include "Core/PoolTable.h"
#include "Core/ThreadPool.h"
#include "Log.h"
#include "R3/R3Trace.h"
#include "Tool/FileThreads.h"

namespace Veltro::Ravelo {

namespace {

/// Messages for the file threads, of all pools. Never destroyed: posts may come late.
CEventQueue& s_io_queue = *new CEventQueue;

SEvent* makeRecord(std::int64_t key, std::int64_t sender, std::int64_t receiver, std::uint32_t type,
                   long info) {
    SEvent* record = CEventPool::get(key);
    if (record == nullptr) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "no memory for a message, receiver: %jd, type:%u\n",
                   static_cast<std::intmax_t>(receiver), type);
        return nullptr;
    }
    record->sender = sender;
    record->receiver = receiver;
    record->type = type;
    record->info = info;
    return record;
}

bool isClose(const SEvent& record) {
    return record.type == MESSAGE_TYPE_CLOSE && record.sender == record.receiver;
}

void callBack(CCurrentObject& current, CNetHandler& handler, const SEvent& record) {
    current.set(handler, record.receiver);
    handler.handle_message(static_cast<long>(record.sender), record.type, static_cast<long>(record.info));
    current.clear();
}

/// Gives back the reference of the delivery, and the record.
void finish(CNetHandler& handler, SEvent* record) {
    R3Trace::messageEnd(handler, record->type, record->info);
    handler.DecRef();
    CEventPool::put(record);
}

}  // namespace

void CMessage::Notify(std::int64_t sender, long receiver, std::uint32_t type, long info, bool is_io) {
    if (receiver >= 0) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR,
                   "CMessage::Notify, invalid receiver id: %ld, sender:%jd, type:%d, info:%jd, is_io:%d\n",
                   receiver, static_cast<std::intmax_t>(sender), static_cast<int>(type),
                   static_cast<std::intmax_t>(info), is_io ? 1 : 0);
        return;
    }
    SEvent* record = makeRecord(EVENT_KEY_MESSAGE, sender, receiver, type, info);
    if (record == nullptr) return;
    const CPoolPin pool(poolOfId(receiver));
    if (!pool) {
        CEventPool::put(record);
    } else if (is_io) {
        s_io_queue.pushWithoutSignal(record);
        FileThreads::deliverIoMessage();
    } else {
        pool->post(record);
    }
}

void CMessage::NotifySerial(std::int64_t sender, long receiver, std::uint32_t type, long info,
                            unsigned flag) {
    if (receiver >= 0) {
        RAVELO_LOG(
            Plinth::LOG_LEVEL_ERROR,
            "CMessage::NotifySerial, invalid receiver id: %ld, sender:%jd, type:%d, info:%jd, flag:%u\n",
            receiver, static_cast<std::intmax_t>(sender), static_cast<int>(type),
            static_cast<std::intmax_t>(info), flag);
        return;
    }
    SEvent* record = makeRecord(EVENT_KEY_SERIAL_MESSAGE, sender, receiver, type, info);
    if (record == nullptr) return;
    const CPoolPin pool(poolOfId(receiver));
    if (pool) {
        pool->postSerial(record);
    } else {
        CEventPool::put(record);
    }
}

void CMessage::NotifyClose(const SNetHandlerRecord& handler) {
    const CPoolPin pool(poolOfId(handler.id()));
    // Another pool that has the number now may have another handler of this id.
    if (!pool || pool->birth() != handler.pool_birth) return;
    SEvent* record = makeRecord(EVENT_KEY_MESSAGE, handler.id(), handler.id(), MESSAGE_TYPE_CLOSE, 0);
    if (record != nullptr) pool->postFront(record);
}

void CMessage::dispatch(CThreadPool& pool, CCurrentObject& current, SEvent* record) {
    CNetHandler* handler = pool.findHandler(record->receiver);
    if (handler == nullptr) {
        CEventPool::put(record);
        return;
    }
    R3Trace::messageBegin(*handler, record->type, record->info);
    if (isClose(*record)) {
        pool.unbind(record->receiver);
    } else {
        callBack(current, *handler, *record);
    }
    finish(*handler, record);
}

void CMessage::dispatchIo(CCurrentObject& current) {
    auto* record = static_cast<SEvent*>(s_io_queue.popNoWait());
    if (record == nullptr) return;
    CPoolPin pool(poolOfId(record->receiver));
    CNetHandler* handler = pool ? pool->findHandler(record->receiver) : nullptr;
    if (handler == nullptr) {
        CEventPool::put(record);
        return;
    }
    R3Trace::messageBegin(*handler, record->type, record->info);
    if (isClose(*record)) {
        pool->unbind(record->receiver);
    } else {
        pool.release();  // the callback may take long; the reference keeps the handler
        callBack(current, *handler, *record);
    }
    pool.release();
    finish(*handler, record);
}

void CMessage::dropIo(int pool_number) {
    SQueueRecord* kept = nullptr;
    SQueueRecord** tail = &kept;
    unsigned kept_count = 0;
    while (SQueueRecord* record = s_io_queue.popNoWait()) {
        auto* message = static_cast<SEvent*>(record);
        if (pool_number < 0 || poolOfId(message->receiver) == pool_number) {
            CEventPool::put(message);
        } else {
            *tail = record;
            tail = &record->next;
            ++kept_count;
        }
    }
    if (kept != nullptr) s_io_queue.pushWithoutSignal(kept);
    // File threads that looked meanwhile have found nothing.
    for (; kept_count > 0; --kept_count) FileThreads::deliverIoMessage();
}

unsigned CMessage::waitingIo() {
    return s_io_queue.size();
}

}  // namespace Veltro::Ravelo
