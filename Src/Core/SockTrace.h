// Trace lines of the socket layer, for the descriptors that the operator's rule selects (CDebugControl).
//
// While nothing is traced, a site costs one relaxed load. Some sites log with a socket record locked: a log
// sink must not wait for anything that registers or removes sockets.
#pragma once

#include "Core/Event.h"
#include "Debug/DebugControl.h"

namespace Veltro::Ravelo {
class CNetHandler;
}

namespace Veltro::Ravelo::SockTrace {

/// Which of its two ways a dispatch takes.
enum class EDispatch { Net, Timeout };

/// What becomes of a socket that is removed: freed at once, left to its dispatch, or left to it already
/// before.
enum class ERemoval { AtOnce, Deferred, DeferredBefore };

/// The lines themselves, behind the test whether anything is traced.
namespace Line {
void registerSock(const CNetHandler& handler, int fd, unsigned mask, int timeout_ms);
void registerNew(const CNetHandler& handler, const SEvent& record, int timeout_ms);
void modifyExisting(const CNetHandler& handler, const SEvent& record, unsigned mask, int timeout_ms);
void unregisterSock(const CNetHandler& handler, int fd, unsigned mask);
void removeSock(const CNetHandler& handler, int fd, ERemoval removal);
void freeSock(const SEvent& record);
void resetTimer(const SEvent& record, std::int64_t timeout_ms);
void dispatchBegin(const SEvent& record, const CNetHandler& handler, EDispatch dispatch);
void ownerNotFound(const SEvent& record, EDispatch dispatch);
void dispatchEnd(SEvent& record, EDispatch dispatch, int result);
void timer(const char* operation, const SEvent& record, const void* container);
}  // namespace Line

inline bool isOn() {
    return CDebugControl::sm_sock_on.load(std::memory_order_relaxed);
}

inline void registerSock(const CNetHandler& handler, int fd, unsigned mask, int timeout_ms) {
    if (isOn()) [[unlikely]]
        Line::registerSock(handler, fd, mask, timeout_ms);
}
inline void registerNew(const CNetHandler& handler, const SEvent& record, int timeout_ms) {
    if (isOn()) [[unlikely]]
        Line::registerNew(handler, record, timeout_ms);
}
inline void modifyExisting(const CNetHandler& handler, const SEvent& record, unsigned mask, int timeout_ms) {
    if (isOn()) [[unlikely]]
        Line::modifyExisting(handler, record, mask, timeout_ms);
}
inline void unregisterSock(const CNetHandler& handler, int fd, unsigned mask) {
    if (isOn()) [[unlikely]]
        Line::unregisterSock(handler, fd, mask);
}
inline void removeSock(const CNetHandler& handler, int fd, ERemoval removal) {
    if (isOn()) [[unlikely]]
        Line::removeSock(handler, fd, removal);
}
inline void freeSock(const SEvent& record) {
    if (isOn()) [[unlikely]]
        Line::freeSock(record);
}
inline void resetTimer(const SEvent& record, std::int64_t timeout_ms) {
    if (isOn()) [[unlikely]]
        Line::resetTimer(record, timeout_ms);
}
inline void dispatchBegin(const SEvent& record, const CNetHandler& handler, EDispatch dispatch) {
    if (isOn()) [[unlikely]]
        Line::dispatchBegin(record, handler, dispatch);
}
inline void ownerNotFound(const SEvent& record, EDispatch dispatch) {
    if (isOn()) [[unlikely]]
        Line::ownerNotFound(record, dispatch);
}
/// The record unlocked and still in flight.
inline void dispatchEnd(SEvent& record, EDispatch dispatch, int result) {
    if (isOn()) [[unlikely]]
        Line::dispatchEnd(record, dispatch, result);
}
/// @param container which time-out list the record is, or was, in.
inline void timer(const char* operation, const SEvent& record, const void* container) {
    if (isOn()) [[unlikely]]
        Line::timer(operation, record, container);
}

}  // namespace Veltro::Ravelo::SockTrace
