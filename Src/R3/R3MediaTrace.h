// What media buffers and their senders do, told to the operator of the remote command server, under the
// switch of the tools.
#pragma once

#include <Ravelo/R3Server.h>

#include <cstdint>

#include "R3/R3Trace.h"

namespace Veltro::Ravelo {
class CFrame;
class CMediaBuffer;
class CMediaPacket;
class CMediaStreamSender;
}  // namespace Veltro::Ravelo

// One line, if the tools are traced.
#define RAVELO_MEDIA_TRACE(...)                                                                \
    do {                                                                                       \
        if (::Veltro::Ravelo::R3Trace::isOn(::Veltro::Ravelo::R3Trace::sm_tools)) [[unlikely]] \
            R3Printf(__VA_ARGS__);                                                             \
    } while (false)

namespace Veltro::Ravelo::R3MediaTrace {

inline const void* at(const void* object) {
    return object;
}

inline void bufferPut(const CMediaBuffer& buffer, const CMediaPacket* packet, int len, int mark, int level) {
    RAVELO_MEDIA_TRACE("%s, %p put packet to buffer, packet :%p, len:%d, mark:%d, level:%x!\n",
                       "Veltro::Ravelo::CMediaBuffer::put", at(&buffer), at(packet), len, mark,
                       static_cast<unsigned>(level));
}
inline void framePut(const CFrame& frame, const CMediaPacket* packet, int len, int mark,
                     std::uint32_t level) {
    RAVELO_MEDIA_TRACE("%s, Frame:%p put packet:%p, len:%d, mark:%d, level:%x!\n",
                       "Veltro::Ravelo::CFrame::Put", at(&frame), at(packet), len, mark, level);
}
/// The frame's arrays grow.
inline void frameGrows(const CFrame& frame, std::int64_t bytes, std::uint32_t packets) {
    RAVELO_MEDIA_TRACE("%p Frame had put %d bytes data, %d packets!\n", at(&frame), static_cast<int>(bytes),
                       static_cast<int>(packets));
}
inline void validFrames(const CMediaBuffer& buffer, std::uint32_t valid, std::uint32_t invalid) {
    RAVELO_MEDIA_TRACE("%s, check valid frames%p buffer %d valid frames,invalid frames:%d!\n",
                       "Veltro::Ravelo::CMediaBuffer::check_valid_frames", at(&buffer),
                       static_cast<int>(valid), static_cast<int>(invalid));
}
inline void frameInvalid(const CMediaBuffer& buffer, const CFrame& frame, std::int64_t bytes,
                         std::uint64_t byte_discard) {
    RAVELO_MEDIA_TRACE("%s, %p rebuild frame list, delete frame:%p, byte:%jd, m_byte_discard:%ju !\n",
                       "Veltro::Ravelo::CMediaBuffer::rebuild_frame_list", at(&buffer), at(&frame),
                       static_cast<std::intmax_t>(bytes), static_cast<std::uintmax_t>(byte_discard));
}
/// The auto-send timer comes to a buffer.
inline void autoSend(const CMediaBuffer& buffer) {
    RAVELO_MEDIA_TRACE("%s, %p do send!\n", "Veltro::Ravelo::CMediaBuffer::do_send", at(&buffer));
}

inline constexpr char SEND_PACKET[] = "Veltro::Ravelo::CMediaBuffer::send_packet";

inline void sendBegins(const CMediaBuffer& buffer, std::uint64_t should_discard, std::uint64_t min_pos) {
    RAVELO_MEDIA_TRACE("%s, %p mediabuffer send packet, should_discard:%ju, min_discard:%ju \n", SEND_PACKET,
                       at(&buffer), static_cast<std::uintmax_t>(should_discard),
                       static_cast<std::uintmax_t>(min_pos));
}
inline void senderSends(const CMediaBuffer& buffer, const CMediaStreamSender& sender, const CFrame* tail) {
    RAVELO_MEDIA_TRACE("%s, %p sender %p send frame:%p!\n", SEND_PACKET, at(&buffer), at(&sender), at(tail));
}
inline void senderHasSent(const CMediaBuffer& buffer, const CMediaStreamSender& sender,
                          std::int64_t position) {
    RAVELO_MEDIA_TRACE("%s, %p sender %p send total:%jd Bytes!\n", SEND_PACKET, at(&buffer), at(&sender),
                       static_cast<std::intmax_t>(position));
}
inline void senderDeleted(const CMediaBuffer& buffer, const CMediaStreamSender& sender) {
    RAVELO_MEDIA_TRACE("%s, %p delete sender %p because socket exception\n", SEND_PACKET, at(&buffer),
                       at(&sender));
}
inline void sendEnds(const CMediaBuffer& buffer, std::uint64_t should_discard, std::uint64_t byte_discard) {
    RAVELO_MEDIA_TRACE("%s, %p mediabuffer send packet, should_discard:%ju, m_byte_discard:%ju \n",
                       SEND_PACKET, at(&buffer), static_cast<std::uintmax_t>(should_discard),
                       static_cast<std::uintmax_t>(byte_discard));
}
inline void frameSent(const CMediaBuffer& buffer, const CFrame& frame, std::int64_t bytes) {
    RAVELO_MEDIA_TRACE("%s, %p mediabuffer send packet, delete frame:%p, byte:%jd \n", SEND_PACKET,
                       at(&buffer), at(&frame), static_cast<std::intmax_t>(bytes));
}

/// A sender is asked to send.
inline void sendBegin(const CMediaStreamSender& sender, const CFrame* frame) {
    RAVELO_MEDIA_TRACE("%s, media strem sender %p send begin, frame:%p!\n",
                       "Veltro::Ravelo::CMediaStreamSender::Send", at(&sender), at(frame));
}

}  // namespace Veltro::Ravelo::R3MediaTrace
