// Where remote commands can trace media buffers and their senders. Nobody listens as yet: all are empty.
// Behind each function stands its line; functions are named as "Veltro::Ravelo::CMediaBuffer::put".
#pragma once

#include <cstdint>

namespace Veltro::Ravelo {
class CFrame;
class CMediaBuffer;
class CMediaPacket;
class CMediaStreamSender;
}  // namespace Veltro::Ravelo

namespace Veltro::Ravelo::R3MediaTrace {

/// "%s, %p put packet to buffer, packet :%p, len:%d, mark:%d, level:%x!\n", CMediaBuffer::put
inline void bufferPut(const CMediaBuffer&, const CMediaPacket* /*packet*/, int /*len*/, int /*mark*/,
                      int /*level*/) {}
/// "%s, Frame:%p put packet:%p, len:%d, mark:%d, level:%x!\n", CFrame::Put
inline void framePut(const CFrame&, const CMediaPacket* /*packet*/, int /*len*/, int /*mark*/,
                     std::uint32_t /*level*/) {}
/// "%p Frame had put %d bytes data, %d packets!\n", when its arrays grow
inline void frameGrows(const CFrame&, std::int64_t /*bytes*/, std::uint32_t /*packets*/) {}
/// "%s, check valid frames%p buffer %d valid frames,invalid frames:%d!\n", CMediaBuffer::check_valid_frames
inline void validFrames(const CMediaBuffer&, std::uint32_t /*valid*/, std::uint32_t /*invalid*/) {}
/// "%s, %p rebuild frame list, delete frame:%p, byte:%jd, m_byte_discard:%ju !\n",
/// CMediaBuffer::rebuild_frame_list
inline void frameInvalid(const CMediaBuffer&, const CFrame&, std::int64_t /*bytes*/,
                         std::uint64_t /*byte_discard*/) {}
/// "%s, %p do send!\n", the tick of the auto-send timer
inline void autoSend(const CMediaBuffer&) {}

// All of CMediaBuffer::send_packet.

/// "%s, %p mediabuffer send packet, should_discard:%ju, min_discard:%ju \n"
inline void sendBegins(const CMediaBuffer&, std::uint64_t /*should_discard*/, std::uint64_t /*min_pos*/) {}
/// "%s, %p sender %p send frame:%p!\n"
inline void senderSends(const CMediaBuffer&, const CMediaStreamSender&, const CFrame* /*tail*/) {}
/// "%s, %p sender %p send total:%jd Bytes!\n"
inline void senderHasSent(const CMediaBuffer&, const CMediaStreamSender&, std::int64_t /*position*/) {}
/// "%s, %p delete sender %p because socket exception\n"
inline void senderDeleted(const CMediaBuffer&, const CMediaStreamSender&) {}
/// "%s, %p mediabuffer send packet, should_discard:%ju, m_byte_discard:%ju \n"
inline void sendEnds(const CMediaBuffer&, std::uint64_t /*should_discard*/, std::uint64_t /*byte_discard*/) {}
/// "%s, %p mediabuffer send packet, delete frame:%p, byte:%jd \n"
inline void frameSent(const CMediaBuffer&, const CFrame&, std::int64_t /*bytes*/) {}

/// "%s, media strem sender %p send begin, frame:%p!\n", CMediaStreamSender::Send
inline void sendBegin(const CMediaStreamSender&, const CFrame* /*frame*/) {}

}  // namespace Veltro::Ravelo::R3MediaTrace
