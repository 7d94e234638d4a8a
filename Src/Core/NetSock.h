#pragma once

#include <cstdint>

#include "Core/Event.h"
#include "Core/SockTrace.h"
#include "Socket/ReadWatch.h"

namespace Veltro::Ravelo {

class CCurrentObject;
class CNetHandler;
class CSock;
class CThreadPool;
struct SNetHandlerRecord;

/// The registry of sockets: one record per registered socket in its pool's socket table. Arms sockets in the
/// pool's multiplexer, turns what arrives into callbacks, and arms them again by the callbacks' results.
///
/// A record is idle (armed, received events 0), in flight (queued or being dispatched, not armed as far as
/// the reactor is concerned) or condemned (removed while in flight; freed when its dispatch ends). A record
/// in flight belongs to the one worker that dispatches it. Lock order: socket table, record, set mutex, wake
/// mutex.
class CNetSock {
public:
    /// See CNetHandler's operations of the same names; the handler given is the caller and becomes the owner.
    static int RegisterSock(CNetHandler& handler, CSock& sock, unsigned mask, int timeout_us);
    static int UnregisterSock(CNetHandler& handler, CSock& sock, unsigned mask);
    static int RemoveSock(CNetHandler& handler, CSock& sock);
    static int CheckSock(CNetHandler& handler, CSock& sock);

    /// Dispatches a record in flight, on the worker that popped it.
    static void handle_netevent(CThreadPool& pool, CCurrentObject& current, SEvent& record);

    /// Gives back a record whose pool has no workers any more.
    static void freeRecord(SKeyedEntry* entry);

private:
    static void reset_timer(SEvent& record, std::int64_t t);
    static bool modify_exist_event(CThreadPool& pool, SEvent& record, CNetHandler& handler, unsigned mask,
                                   int timeout_ms) PLINTH_REQUIRES(record.mutex);
    static SockTrace::ERemoval condemn(CThreadPool& pool, SEvent& record) PLINTH_REQUIRES(record.mutex);
    static void freeErased(SEvent& record);
    static bool rearm(CThreadPool& pool, SEvent& record, int result, CReadWatch::ELeft left);
    static bool freeCondemned(CThreadPool& pool, SEvent& record);
};

}  // namespace Veltro::Ravelo
