#pragma once

#include "Core/NetHandlerRecord.h"

namespace Veltro::Ravelo {

/// A reference to a handler, taken while a lock is held that the handler's end may want, and given back
/// behind it: declare it in front of the lock's guard.
class CHandlerHold {
public:
    CHandlerHold() = default;
    ~CHandlerHold() {
        if (m_handler != nullptr) m_handler->DecRef();
    }
    CHandlerHold(const CHandlerHold&) = delete;
    CHandlerHold& operator=(const CHandlerHold&) = delete;

    /// Once. @param handler must be alive, or in its handle_close(), which waits for the lock.
    /// @return false for null, and for a handler that is being closed: it is not held, since it may be gone
    /// when the lock has been given back.
    bool take(CNetHandler* handler) {
        if (handler == nullptr || !SNetHandlerRecord::of(*handler).references.addIfHeld()) return false;
        m_handler = handler;
        return true;
    }

private:
    CNetHandler* m_handler = nullptr;
};

}  // namespace Veltro::Ravelo
