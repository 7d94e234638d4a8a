// Where the remote command server can trace what handlers do. There is no server in this build, so nobody
// listens.
#pragma once

#include <cstdint>

namespace Veltro::Ravelo {
class CNetHandler;
}

namespace Veltro::Ravelo::R3Trace {

inline void messageBegin(const CNetHandler&, std::uint32_t /*type*/, std::int64_t /*info*/) {}
inline void messageEnd(const CNetHandler&, std::uint32_t /*type*/, std::int64_t /*info*/) {}
inline void timerBegin(const CNetHandler&) {}
inline void timerEnd(const CNetHandler&) {}
inline void receiverBegin(const CNetHandler&) {}
inline void receiverEnd(const CNetHandler&) {}

}  // namespace Veltro::Ravelo::R3Trace
