// Where the remote command server can trace what handlers do. There is no server in this build, so nobody
// listens.
#pragma once

#include <cstdint>

namespace Veltro::Ravelo {
class CNetHandler;
class CSock;
}  // namespace Veltro::Ravelo

namespace Veltro::Ravelo::R3Trace {

inline void messageBegin(const CNetHandler&, std::uint32_t /*type*/, std::int64_t /*info*/) {}
inline void messageEnd(const CNetHandler&, std::uint32_t /*type*/, std::int64_t /*info*/) {}
inline void timerBegin(const CNetHandler&) {}
inline void timerEnd(const CNetHandler&) {}
/// A stream sender takes a block, or is told that its socket is writable.
inline void senderPut(const CNetHandler& /*sender*/, std::uint32_t /*length_bytes*/,
                      const CSock& /*stream*/) {}
inline void senderOutput(const CNetHandler& /*sender*/, const CSock& /*stream*/) {}

}  // namespace Veltro::Ravelo::R3Trace
