#pragma once

#include <Ravelo/NetHandler.h>

namespace Veltro::Ravelo {

struct SMediaStreamReceiverRecord;

/// Something that is called at a steady pace and not when a socket is ready: derive from it and override the
/// callback of its mode.
///
/// Made with new; a handler of the public pool. Receivers are spread over pacing threads, in every mode one
/// for each processor and pinned to it, which tick on a fixed grid: every 20 ms unless
/// CNetThread::SetRcvPriority() says otherwise, and every 40 ms for those that write. A thread that finds
/// itself late makes up for it, also at its start, where it goes through up to 100 ms at once; one that is
/// off by more than twenty ticks begins a new grid.
///
/// Its life ends through Close(), or with the library; a derived class deletes itself in handle_close(),
/// which is called once. While the last public pool is being destroyed a receiver may go at any time: hold a
/// reference to use it still.
///
/// Every operation may be called from any thread, also inside the callbacks, and none waits for a callback.
class RAVELO_API CMediaStreamReceiver : public CNetHandler {
public:
    enum receiver_mode : unsigned int {
        RECEIVE_MODE_STREAM = 0,  ///< handle_stream_input() at every tick
        RECEIVE_MODE_PASSIVE =
            1,                  ///< handle_passive_input(), when the media time that it returned is reached
        RECEIVE_MODE_WRITE = 2  ///< handle_stream_write() at every tick of the threads that write
    };

    /// Rests until StartReceive(), in the mode RECEIVE_MODE_STREAM. The public pool must exist.
    CMediaStreamReceiver();
    ~CMediaStreamReceiver() override;
    CMediaStreamReceiver(const CMediaStreamReceiver&) = delete;
    CMediaStreamReceiver& operator=(const CMediaStreamReceiver&) = delete;

    /// Sets which callback is called. The threads are chosen by it at the first StartReceive(); after that
    /// only the callback changes.
    void SetReceiveMode(receiver_mode mode);
    /// Sets who is told of what happens: NOTIFY_STREAM_EXCEPTION after each callback that returned a negative
    /// number, and NOTIFY_RECEIVER_CLOSED once, when the receiver has been closed. The sender is the
    /// receiver's id, the message's info 0.
    /// @param id a handler's id; 0, at the start, means nobody.
    void WaitException(long id);
    /// Does nothing but log a line: the pace is that of the media times.
    void SetFrameRate(unsigned int frame_rate);

    /// Lets the receiver be called from the next tick on; again after StopReceive(), on the same thread as
    /// before. The media time begins anew. A receiver that runs already, or is closed, is left alone, and one
    /// line is logged; so is one for which there was no thread or no memory, which may be started again.
    /// @param offset microseconds by which RECEIVE_MODE_PASSIVE is to stay ahead of real time; counts only at
    /// the rate 1.0.
    /// @param rate how fast RECEIVE_MODE_PASSIVE plays: 1.0 as recorded, 2.0 twice as fast.
    void StartReceive(std::int64_t offset, float rate);
    /// Lets it rest until StartReceive(). A call in progress on another thread goes on. A receiver that does
    /// not run is left alone, and one line is logged.
    void StopReceive();
    /// Ends the receiver: no call follows but one in progress on another thread, and at the next tick its
    /// thread tells whom WaitException() named and lets handle_close() follow. One that was never started
    /// is closed at once. The object may be gone when this returns. An override must call it.
    void Close() override;

    /// @name Callbacks
    /// On the receiver's pacing thread, never on two at once, and without a lock. They hold up the other
    /// receivers of the thread, so they should be short. A negative result is an exception, see
    /// WaitException(); the receiver runs on.
    /// @{

    /// A tick in the mode RECEIVE_MODE_STREAM. Default: 0.
    virtual int handle_stream_input();
    /// Time for more in the mode RECEIVE_MODE_PASSIVE: deliver what comes next. Called up to eight times in
    /// one tick while the media time lags behind.
    /// @return the media time of what was delivered, in microseconds and above 0. Not called again before
    /// real time has come so far since the first one. 0: there was nothing; called again at the next tick.
    /// Default: 0.
    virtual std::int64_t handle_passive_input();
    /// A tick in the mode RECEIVE_MODE_WRITE. Default: 0.
    virtual int handle_stream_write();
    /// @}

private:
    friend class CPacingGroup;
    friend struct SMediaStreamReceiverRecord;

    void do_receive(std::int64_t pace_us);
    std::int64_t receive_passive(std::int64_t pace_us);
    void end();

    SMediaStreamReceiverRecord* m_internal;
};

}  // namespace Veltro::Ravelo
