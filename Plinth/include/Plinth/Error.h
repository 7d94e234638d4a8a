#pragma once

#include <Plinth/Defs.h>

namespace Veltro::Plinth {

/// The calling thread's last system error: errno on Linux, GetLastError() on Windows.
PLINTH_API int getLastError();

}  // namespace Veltro::Plinth
