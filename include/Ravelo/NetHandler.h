#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

class CSock;
struct SNetHandlerRecord;

/// Base class of every event-driven object.
///
/// A handler belongs to one thread pool for life and is known to others by its id only. The pool's threads
/// call it back for its sockets, timers and messages; callbacks of one handler may run on several threads at
/// once, except serial messages. Its life ends through Close(): the pool forgets it, and once the last
/// callback in progress has returned, handle_close() is called, exactly once, as its last callback; a derived
/// class deletes itself there. Deleting a handler in any other way breaks an assertion.
///
/// The constructor binds the handler, so messages to its id may arrive before a derived constructor has
/// ended: hand the id out last.
///
/// Every operation may be called from any thread and, unless it says otherwise, does not block.
class RAVELO_API CNetHandler {
public:
    /// Binds the handler to the public pool, number 0. As CNetHandler(0).
    CNetHandler();
    /// Binds the handler to a pool.
    /// @param pool 0 (public) to 63; the pool must exist: otherwise one line is logged and an assertion
    /// fails.
    explicit CNetHandler(int pool);
    /// Requires Close() to have run, else an assertion fails. Sockets still registered are logged and stay
    /// registered, without an owner.
    virtual ~CNetHandler();
    CNetHandler(const CNetHandler&) = delete;
    CNetHandler& operator=(const CNetHandler&) = delete;

    /// @name Callbacks
    /// Called on a thread of the handler's pool; fd is the socket's descriptor. They may block, but hold up
    /// what else that thread would serve. The result of a socket callback sets the socket's next
    /// time-out: 0 keeps the registered interval, a positive number is a new interval in microseconds, a
    /// negative number leaves the socket without one. After a time-out callback the socket has no time-out
    /// whatever is returned.
    /// @{

    /// The socket is readable, has a connection to accept, or was closed by its peer. Default: -1.
    virtual int handle_input(int fd);
    /// The socket is writable, or its connect has ended. Default: -1.
    virtual int handle_output(int fd);
    /// Urgent data, or a failed connect; called alone, without the two above. Default: -1.
    virtual int handle_exception(int fd);
    /// Nothing arrived in time on a socket registered for reading. Default: -1.
    virtual int handle_input_timeout(int fd);
    /// A socket registered only for writing did not become writable in time. Default: -1.
    virtual int handle_output_timeout(int fd);
    /// Reserved: the reactor reports no exception time-outs. Default: -1.
    virtual int handle_exception_timeout(int fd);
    /// A timer of this handler is due.
    /// @return negative ends the timer, 0 keeps its period, positive is a new period in microseconds.
    /// Default: -1.
    virtual std::int64_t handle_timeout(long timer_id);
    /// The handler's last callback, on whichever thread dropped the last reference: delete the object here.
    /// @param self this handler. The result is not used. Default: does nothing, -1.
    virtual int handle_close(CNetHandler* self);
    /// A message for this handler. The result is not used. Default: -1.
    virtual int handle_message(long sender_id, unsigned int type, long info);
    /// @}

    /// Ends the handler: it leaves the pool ahead of all messages queued for it, and handle_close() follows.
    /// A second call does nothing. An override must call the base.
    virtual void Close();

    /// The handler's id: negative, fits 32 bits, not reused before 1024 others have been.
    long GetID();
    /// Sets the receiver of the Notify forms that name none; 0, at the start, means nobody.
    void SetDefaultRcer(long id);

    /// Takes a reference: the handler's memory stays valid until the matching DecRef().
    void AddRef();
    /// Gives a reference back; the last one calls handle_close().
    void DecRef();
    /// Counts a registered socket. Called by the socket registry.
    void AddSock();
    /// Takes one off the count of registered sockets. Called by the socket registry.
    void DecSock();

protected:
    /// Registers a socket, or adds interest to a registered one and makes this handler its owner.
    /// @param sock an open socket; stays the caller's. Remove it from the registry before closing it.
    /// @param mask bits of EventMask: Read, Write, Except, Protect. Bits are added to those already set.
    /// @param timeout microseconds until the matching time-out callback, in steps of 1 ms and checked every
    /// 500 ms: it comes up to 1 s late, never early. 0 or less: none.
    /// @return 0, or -1 after Close(), for a socket that is not open, for one protected by another handler,
    /// or when the pool has gone.
    int RegisterSock(CSock& sock, unsigned int mask, int timeout);
    /// Withdraws interest. @return 0, also when the socket is not registered; -1 if it is protected by
    /// another.
    int UnregisterSock(CSock& sock, unsigned int mask);
    /// Forgets a socket: no callback for it starts after this returns, except one that is already running or
    /// about to run on another thread. @return as UnregisterSock().
    int RemoveSock(CSock& sock);
    /// Removes the socket if nobody reads from it, else withdraws only its Write interest. @return 0.
    int CheckSock(CSock& sock);

    /// Arms a periodic timer; handle_timeout() decides whether it goes on.
    /// @param period microseconds, raised to 3 ms and cut to 24 hours; fires in steps of about 5 ms.
    /// @return the timer's id (negative, below -101), or -1 after Close() or when the pool has gone.
    long SetTimer(std::int64_t period);
    /// Ends a waiting timer. One that is due already, or inside handle_timeout(), goes by its result.
    void DestroyTimer(long timer_id);

    /// Sends a message: handle_message(this handler's id, type, info) on a thread of the receiver's pool.
    /// A message to a handler that is gone is dropped. Type 12 to oneself means close: do not use it.
    /// @param receiver a handler's id; without it the default receiver.
    /// @param info travels as it is; what a pointer in it points to stays the application's.
    void Notify(long receiver, unsigned int type, long info);
    void Notify(unsigned int type, long info);
    /// As Notify, but the receiver's pool delivers its serial messages one at a time, in the order posted.
    /// @param flag shown when the receiver is invalid; no other effect.
    void NotifySerial(long receiver, unsigned int type, long info, unsigned int flag);
    void NotifySerial(unsigned int type, long info, unsigned int flag);
    /// As Notify, but delivered on a file thread, so that the receiver may block there. Waits while no file
    /// threads run.
    void NotifyIO(long receiver, unsigned int type, long info);
    void NotifyIO(unsigned int type, long info);

    /// CTsMemory's operations of the same names.
    void* TsMalloc(unsigned int size);
    void TsFree(void* block);
    void* Malloc(unsigned int size);
    void Free(void* block);

private:
    friend struct SNetHandlerRecord;
    friend class CStreamSender;  // registers its socket under its owner
    SNetHandlerRecord* m_internal;
};

}  // namespace Veltro::Ravelo
