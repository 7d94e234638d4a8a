#include <Plinth/Error.h>

#include <windows.h>

#include "LastErrorKeeper.h"

namespace Veltro::Plinth {

int getLastError() {
    return static_cast<int>(GetLastError());
}

// Socket errors are kept in the same slot.
CLastErrorKeeper::CLastErrorKeeper() : m_error(static_cast<int>(GetLastError())) {}
CLastErrorKeeper::~CLastErrorKeeper() {
    SetLastError(static_cast<DWORD>(m_error));
}

}  // namespace Veltro::Plinth
