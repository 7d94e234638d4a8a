#pragma once

#include <Ravelo/NetHandler.h>

namespace Veltro::Ravelo {

struct SStreamSenderRecord;

/// The types of the messages that a stream sender sends.
enum : unsigned {
    NOTIFY_STREAM_EXCEPTION = 2,  ///< the socket failed; info 0
    NOTIFY_BUFFER_FREE = 4,       ///< the wanted room is there; info: free bytes
    NOTIFY_SEND_FINISH = 9        ///< nothing is queued any more; info 0
};

/// A send path that never blocks and never sends a part: Put() takes a block of bytes whole, or refuses it
/// whole. What the socket does not take at once is kept, in order, and sent when the socket becomes writable.
///
/// A sender works for an owner, the handler under which the socket is registered, and registers the socket
/// for Write there while it keeps bytes. The reactor calls the owner, whose handle_output() forwards:
/// `return m_sender->handle_output(fd);`. Attach(), then Put() any number of times; Detach() before the
/// socket is used elsewhere, closed, or the sender ended; Close() ends the sender, and what it still keeps is
/// lost.
///
/// A handler of the public pool itself; its messages come in its own name. Every operation may be called from
/// any thread and none blocks.
class RAVELO_API CStreamSender : public CNetHandler {
public:
    /// What a sender has done since it was made. bytes_taken is always the sum of bytes_sent, bytes_queued
    /// and bytes_cleared.
    struct SCounters {
        std::uint64_t puts;           ///< blocks taken
        std::uint64_t refused_puts;   ///< blocks refused for want of room, or of memory
        std::uint64_t bytes_taken;    ///< by Put()
        std::uint64_t bytes_sent;     ///< to the socket
        std::uint64_t bytes_cleared;  ///< dropped by Clear()
        std::uint64_t stalled_us;     ///< microseconds during which bytes were queued, in total
        std::uint32_t bytes_queued;   ///< now
        std::uint32_t bytes_free;     ///< now; what a Put() may have while bytes are queued
    };

    /// Makes a sender without a socket, which keeps up to 8 blocks of 32 KiB. The public pool must exist.
    /// @return the sender, which ends through Close(); null when there was no memory.
    static CStreamSender* Create();

    /// @name The socket
    /// @{

    /// Sets the socket and its owner; nothing is registered yet. Bytes kept for a former socket stay queued
    /// and, unless Clear() drops them, go to this one once the owner registers it for Write.
    /// @param owner must live, and be of a pool that lives, until Detach() or Close(); not referenced.
    /// @param stream a CSockStream or CSimulatorStream: another one fails an assertion when it is sent on.
    /// Stays the caller's, who sends nothing on it meanwhile; must live until Detach() or Close().
    /// @return 0; -1 if either is null, and nothing changes.
    int Attach(CNetHandler* owner, CSock* stream);
    /// Withdraws the socket's Write interest, and removes it from the registry if nobody reads from it. The
    /// sender still knows the socket and keeps its bytes.
    /// @return the socket; null if none was attached.
    CSock* Detach();
    /// @}

    /// @name Sending
    /// @{

    /// Sends a block, or keeps what the socket does not take of it. While bytes are kept, a block is only
    /// added to them. To keep any registers the socket without a time-out, which ends the one that it has:
    /// return the next one from the owner's handle_output().
    /// @param buf not null; copied. @param len bytes, at most the capacity; 0 is taken and does nothing.
    /// @return 0 taken; -1 refused for want of room (see WaitBufferSize()), or the socket failed: then
    /// NOTIFY_STREAM_EXCEPTION follows, and some of the block may have been sent.
    int Put(const char* buf, unsigned int len);
    /// Drops all bytes kept. Waits are answered as if they had been sent. @return 0.
    int Clear();
    /// Raises the capacity; it never shrinks.
    /// @param blocks of 32 KiB, 1 to 65535. Not more than now changes nothing, but less than what is queued
    /// is logged and fails an assertion.
    /// @return 0; -1, and nothing changed, for more than 65535 blocks or when there was no memory.
    int SetBufferSize(unsigned int blocks);
    /// The capacity in blocks of 32 KiB.
    unsigned int GetBufferSize();
    /// What it has done so far.
    SCounters GetCounters();
    /// @}

    /// @name Being told
    /// Each names a handler by its id, which gets a message in this sender's name. A wait that holds already
    /// is answered at once. With no memory for it, a wait is logged and forgotten.
    /// @{

    /// One NOTIFY_BUFFER_FREE as soon as so much room is free. Waiting again replaces a handler's wait.
    /// @param size bytes; 0, or more than the greatest int, waits for nothing.
    void WaitBufferSize(long id, unsigned int size);
    /// One NOTIFY_SEND_FINISH as soon as nothing is queued, however often it was asked for.
    void WaitSendFinish(long id);
    /// A NOTIFY_STREAM_EXCEPTION whenever the socket has failed; 0 ends that. One handler at a time. A socket
    /// that failed while kept bytes were sent has been removed from the registry.
    void WaitException(long id);
    /// @}

    /// @name The sender's own callbacks
    /// @{

    /// Sends what is kept with one gathered call; the owner's handle_output() calls it.
    /// @param handle the socket's. @return 0; -1 if no socket is attached.
    int handle_output(int handle) override;
    int handle_close(CNetHandler* self) override;
    /// @}

private:
    explicit CStreamSender(SStreamSenderRecord* record);
    ~CStreamSender() override;
    CStreamSender(const CStreamSender&) = delete;
    CStreamSender& operator=(const CStreamSender&) = delete;

    // With the record locked.
    int send_first(const char* buf, unsigned int len);
    int put_buffer(const char* buf, unsigned int len, int already_sent);
    void send_queued();
    void check_buffer_free();
    void report_exception();

    friend struct SStreamSenderRecord;
    SStreamSenderRecord* m_internal;
};

}  // namespace Veltro::Ravelo
