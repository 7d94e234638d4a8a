// Where the socket layer can be traced; the lines themselves belong to the operator console.
#pragma once

#include "Core/Event.h"

namespace Veltro::Ravelo {
class CNetHandler;
}

namespace Veltro::Ravelo::SockTrace {

// No descriptor can be selected as long as there is no console command to select it with, so these are empty.
inline void registerSock(const CNetHandler&, int /*fd*/, unsigned /*mask*/, int /*timeout_ms*/) {}
inline void registerNew(const SEvent&) {}
inline void modifyExisting(const SEvent&) {}
inline void unregisterSock(const CNetHandler&, int /*fd*/, unsigned /*mask*/) {}
inline void removeSock(const char* /*variant*/, const SEvent&) {}
inline void resetTimer(const SEvent&, std::int64_t /*timeout_ms*/) {}
inline void dispatchBegin(const SEvent&, const CNetHandler&) {}
inline void ownerNotFound(const SEvent&) {}
inline void dispatchEnd(const SEvent&, std::int64_t /*result*/) {}
inline void timer(const char* /*operation*/, const SEvent&) {}

}  // namespace Veltro::Ravelo::SockTrace
