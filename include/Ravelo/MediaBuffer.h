#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

class CMediaStreamSender;
struct SMediaBufferRecord;

/// A piece of a media stream: derive from it; the payload is the application's.
class RAVELO_API CMediaPacket {
public:
    virtual ~CMediaPacket();
    /// The buffer needs the packet no more: called once for each packet that was given to it, on any thread
    /// that uses the buffer or one of its senders, possibly inside the very Put(). Must not call the buffer.
    virtual void Release() = 0;
    /// The payload's first byte, as many bytes as Put() says; asked for once, when the packet is stored, and
    /// valid until Release().
    virtual char* GetBuffer() = 0;
};

/// Somebody who is offered every packet that a CMediaBuffer is given, such as another buffer or a recorder:
/// derive from it.
class RAVELO_API CLevel2Buffer_IF {
public:
    virtual ~CLevel2Buffer_IF();
    /// A packet, with the arguments of CMediaBuffer::Put() as they stand. Called with the buffer locked: it
    /// must not call that buffer.
    /// @param packet valid during the call only; who wants it longer sees to that with the application.
    /// @return negative takes the object off the buffer at once; it is not touched any more.
    virtual int PutPacket(CMediaPacket* packet, int len, int mark, int level) = 0;

private:
    friend struct SMediaBufferRecord;
    CLevel2Buffer_IF* next = nullptr;
};

/// A live media stream for any number of connections: takes packets, groups them into frames, keeps a short
/// history of these and sends them through a CMediaStreamSender for each connection.
///
/// A frame has a level, 1 the most important to 10, and a channel, 0 to 7. A frame whose level is the best
/// that its channel has had is a key frame. A connection begins with a key frame, and one that is too slow
/// skips frames: frames age by one step with each frame put, and a frame of level L is discarded at age
/// 10 * (11 - L) unless a sender is in the middle of it; the sender that missed it goes on with the next key
/// frame of that channel. What all senders have passed is freed, and without senders nothing is kept.
///
/// So what is kept are the frames that the last 100 have not aged out, and one for each sender. The frame
/// being filled counts, too: it may have up to MAX_FRAME_BYTES and MAX_FRAME_PACKETS. One that exceeds them,
/// because its end never comes, is dropped whole, and so is the rest of it up to the packet that ends it.
///
/// Every operation may be called from any thread and takes the buffer's lock; Put() and do_send() send to all
/// connections under it. Callbacks that come meanwhile (Release(), GetBuffer(), PutPacket(), a sender's send
/// proc) must not call the buffer.
class RAVELO_API CMediaBuffer {
public:
    static constexpr std::int64_t MAX_FRAME_BYTES = 64 * 1024 * 1024;
    static constexpr unsigned MAX_FRAME_PACKETS = 65'536;

    /// A buffer without frames and receivers. One for which there was no memory takes nothing: Put() gives
    /// -1.
    CMediaBuffer();
    /// As Clear(); the timer of auto-send knows the buffer no more when this returns.
    ~CMediaBuffer();
    CMediaBuffer(const CMediaBuffer&) = delete;
    CMediaBuffer& operator=(const CMediaBuffer&) = delete;

    /// @name The stream
    /// @{

    /// Takes a packet; the one that ends a frame sends it and what connections have still to get.
    /// @param packet the buffer's until its Release(), whatever the result. Null does nothing.
    /// @param len bytes of payload; a negative number counts as 0.
    /// @param mark 1 ends the frame with this packet, any other value continues it.
    /// @param level bits 0..23: a number from 1 to 10, what is below or above counts as these; that of the
    /// last packet is the frame's. Bits 24..31: the channel; more than 7 in the last packet of a frame fails
    /// an assertion.
    /// @return 0; -1 if the packet was dropped, and its frame with it, for want of memory or as too large.
    int Put(CMediaPacket* packet, int len, int mark, int level);
    /// Gives the frame being filled an information of the application's, for the send procs.
    /// @param info the buffer's until its Release(), as a packet; null does nothing.
    /// @return 0; -1 without memory: info has been released then.
    int PutFrameInfo(CMediaPacket* info, int value);
    /// Drops all frames and forgets, after a log line for each list, the senders and second-level buffers
    /// that are still there, without touching them.
    void Clear();
    /// @}

    /// @name Receivers
    /// What is null, or linked (or, for the Del operations, not linked) already, is left alone.
    /// @{

    /// Lets a sender take part from the next key frame of a channel that it sends; one that is in the middle
    /// of a frame of an earlier time finishes that first.
    /// @param sender with a socket attached, and in no other buffer. Stays the caller's, who takes it off
    /// before ending it.
    void AddSender(CMediaStreamSender* sender);
    /// Takes a sender off, also one that the buffer has dropped because its socket failed. No callback of it
    /// runs when this returns. Without senders, all complete frames go.
    void DelSender(CMediaStreamSender* sender);
    /// Offers every packet from now on to a second-level buffer. It stays the caller's.
    void AddLevel2Buffer(CLevel2Buffer_IF* buffer);
    void DelLevel2Buffer(CLevel2Buffer_IF* buffer);
    /// @}

    /// @name Sending again
    /// What a connection did not take waits for the end of the next frame. Where that is too long, a timer
    /// can try again; it ages the frames as well. One timer serves all buffers of the process; it needs the
    /// public pool and ends when no buffer uses it.
    /// @{

    /// As EnableAutoSend(100).
    void EnableAutoSend();
    /// @param interval milliseconds; of no effect while the timer runs, be it for another buffer.
    void EnableAutoSend(std::uint64_t interval);
    void DisableAutoSend();
    /// Sends what waits and ages the frames by one step; nothing while a frame has begun.
    void do_send();
    /// @}

    /// @name Figures
    /// @{

    /// How many frames were worth sending, or half sent, after the last frame or do_send(). Takes no lock.
    int GetBufferNum();
    /// Bytes of all frames, the one being filled included.
    std::uint64_t GetBufferSize();

    struct SCounters {
        std::uint32_t frames;           ///< there now, the one being filled included
        std::uint32_t valid_frames;     ///< GetBufferNum()
        std::uint64_t bytes;            ///< GetBufferSize()
        std::uint64_t frames_put;       ///< completed since the start
        std::uint64_t discarded;        ///< frames that aged out, since the start
        std::uint64_t discarded_bytes;  ///< of these
        std::uint64_t dropped;          ///< frames too large, or without memory, since the start
    };
    SCounters GetCounters();
    /// @}

    /// The worker of Put() and do_send().
    /// @param force age the frames though there is no packet.
    int put(CMediaPacket* packet, int len, int mark, int level, bool force);

private:
    friend struct SMediaBufferRecord;

    void send_packet(SMediaBufferRecord& record);

    SMediaBufferRecord* m_internal;
};

}  // namespace Veltro::Ravelo
