// What handlers and tools do, told to the operator of the remote command server. While a switch is off, a
// site costs one relaxed load. Nothing in the library switches them on, since the server is switched off.
#pragma once

#include <atomic>
#include <cstdint>

namespace Veltro::Ravelo {
class CNetHandler;
class CSock;
}  // namespace Veltro::Ravelo

namespace Veltro::Ravelo::R3Trace {

/// The process-wide switches.
extern std::atomic<bool> sm_events;     ///< messages and timers of handlers
extern std::atomic<bool> sm_tools;      ///< senders and media buffers
extern std::atomic<bool> sm_receivers;  ///< media stream receivers

inline bool isOn(const std::atomic<bool>& which) {
    return which.load(std::memory_order_relaxed);
}

/// The lines themselves, behind the test of the switch. @param when "begin" or "end".
namespace Line {
void message(const char* when, const CNetHandler& handler, std::uint32_t type, std::int64_t info);
void timer(const char* when, const CNetHandler& handler);
void receiver(const char* when, const CNetHandler& handler);
void senderPut(const CNetHandler& sender, std::uint32_t length_bytes, const CSock& stream);
void senderOutput(const CNetHandler& sender, const CSock& stream);
}  // namespace Line

inline void messageBegin(const CNetHandler& handler, std::uint32_t type, std::int64_t info) {
    if (isOn(sm_events)) [[unlikely]]
        Line::message("begin", handler, type, info);
}
inline void messageEnd(const CNetHandler& handler, std::uint32_t type, std::int64_t info) {
    if (isOn(sm_events)) [[unlikely]]
        Line::message("end", handler, type, info);
}
inline void timerBegin(const CNetHandler& handler) {
    if (isOn(sm_events)) [[unlikely]]
        Line::timer("begin", handler);
}
inline void timerEnd(const CNetHandler& handler) {
    if (isOn(sm_events)) [[unlikely]]
        Line::timer("end", handler);
}
inline void receiverBegin(const CNetHandler& handler) {
    if (isOn(sm_receivers)) [[unlikely]]
        Line::receiver("begin", handler);
}
inline void receiverEnd(const CNetHandler& handler) {
    if (isOn(sm_receivers)) [[unlikely]]
        Line::receiver("end", handler);
}
/// A stream sender takes a block, or is told that its socket is writable.
inline void senderPut(const CNetHandler& sender, std::uint32_t length_bytes, const CSock& stream) {
    if (isOn(sm_tools)) [[unlikely]]
        Line::senderPut(sender, length_bytes, stream);
}
inline void senderOutput(const CNetHandler& sender, const CSock& stream) {
    if (isOn(sm_tools)) [[unlikely]]
        Line::senderOutput(sender, stream);
}

}  // namespace Veltro::Ravelo::R3Trace
