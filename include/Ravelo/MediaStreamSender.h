#pragma once

#include <Plinth/Function.h>
#include <Ravelo/NetHandler.h>

namespace Veltro::Ravelo {

class CFrame;
class CMediaPacket;
class CSock;
struct SMediaStreamSenderRecord;

/// Sends the frames of one CMediaBuffer to one connection. The buffer drives it: what the socket does not
/// take stays, and is tried again at the end of the next frame or when the buffer's auto-send comes round.
///
/// It sends whole frames in their order, those of the channels it is set to, and skips what was discarded
/// before it came so far: such a channel goes on with its next key frame, and so does one that was switched
/// off meanwhile. Between two frames it can slip in other data.
///
/// Create(), Attach(), the settings, CMediaBuffer::AddSender(); in the end CMediaBuffer::DelSender(), which
/// waits for what runs, then Detach(), and Close(), with which the object goes. A failure of the socket ends
/// the sending, not the sender. A handler of the public pool, so that its messages come in its own name.
class RAVELO_API CMediaStreamSender : public CNetHandler {
public:
    /// What a sender holds at most of other data.
    static constexpr unsigned OTHER_DATA_BYTES = 4096;

    /// @return a sender of all channels, without a time-out; null without memory.
    static CMediaStreamSender* Create();

    /// @name Settings
    /// Any thread may call them at any time, but Attach(), Detach() and the send proc are for senders that
    /// are in no buffer.
    /// @{

    /// Sets the connection: a stream, a TLS stream, a bandwidth-limited stream, or a datagram socket with a
    /// destination, for which each frame is one datagram. Non-blocking; it stays the caller's.
    /// @return 0.
    int Attach(CSock* stream);
    /// @return what Attach() set; there is none afterwards.
    CSock* Detach();
    /// Names who is told, once, when the socket fails or has timed out: NOTIFY_STREAM_EXCEPTION.
    /// @param id a handler's id; 0, as at the start, means nobody.
    void WaitException(long id);
    /// @param seconds for how long the socket may take nothing at all before WaitException()'s handler is
    /// told. Looked at when the buffer sends. 0xFFFFFFFF, as at the start: for ever.
    void SetSendTimeout(unsigned int seconds);
    /// Sends one channel: the first call takes all others away, the next ones add theirs.
    /// @param channel 0 to 7, more fails an assertion; negative: all channels.
    void SetSendChannel(int channel);
    /// @param channel 0 to 7, else an assertion fails.
    void DisableSendChannel(int channel);
    /// Sets what is called after each frame that was sent whole, with its information and value from
    /// CMediaBuffer::PutFrameInfo() and its bytes. Called with the buffer locked: it must not call that.
    /// @return true; false without memory: none is set then.
    bool AttachSendProc(Plinth::TFunction3<void, CMediaPacket*, int, int> proc);
    /// @return true.
    bool DetachSendProc();
    /// @}

    /// @name Other data
    /// @{

    /// Queues bytes to be sent between two frames, before the next one; what exceeds OTHER_DATA_BYTES with
    /// the bytes that wait already, or finds no memory, is dropped whole. The room for them is the sender's
    /// only while bytes wait. Any thread. A sender that waits for its first key frame sends them with that.
    void SendOtherData(const char* data, int len);
    /// Gives the unsent rest of a packet that the socket took only in part, so that the caller can send it by
    /// other means, and goes on behind it. Not while the buffer may be sending: best for one taken off it.
    /// @param len bytes at buf.
    /// @return bytes given; 0 if no packet is split; -1 if there is no room for them: nothing is changed.
    int GetTailPacket(char* buf, int len);
    /// @}

    /// @name Figures
    /// @{

    /// Since the sender was made.
    struct SCounters {
        std::uint64_t frames_sent;      ///< whole ones
        std::uint64_t bytes_sent;       ///< of frames
        std::uint64_t skipped_late;     ///< frames that had been discarded before their turn
        std::uint64_t skipped_to_key;   ///< frames left out up to the key frame after such a loss
        std::uint64_t skipped_channel;  ///< frames of channels that are switched off
        std::uint64_t stalled_us;  ///< microseconds between a write that took nothing and the next that did
    };
    /// Any thread.
    SCounters GetCounters();
    /// @}

    /// @name What the buffer and the reactor call
    /// @{

    /// Sends what the sender has to send, up to the frame being filled.
    /// @param frame the buffer's last frame.
    /// @return the sender's position in the stream, or -1 once the socket has failed.
    std::int64_t Send(CFrame* frame, std::uint64_t);
    int handle_close(CNetHandler* self) override;
    /// @}

private:
    friend struct SMediaBufferRecord;
    friend struct SMediaStreamSenderRecord;

    explicit CMediaStreamSender(SMediaStreamSenderRecord* record);
    ~CMediaStreamSender() override;
    CMediaStreamSender(const CMediaStreamSender&) = delete;
    CMediaStreamSender& operator=(const CMediaStreamSender&) = delete;

    int check_other_data();
    bool timed_out();
    void warn_if_due();
    std::int64_t fail();
    void report_exception();

    SMediaStreamSenderRecord* m_internal;
};

}  // namespace Veltro::Ravelo
