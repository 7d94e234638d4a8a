#pragma once

#include <Plinth/Defs.h>

namespace Veltro::Plinth {

/// The calling thread's last system error: errno on Linux, GetLastError() on Windows, which is where the
/// socket calls leave theirs too. Only meaningful straight after a call that failed.
PLINTH_API int getLastError();

}  // namespace Veltro::Plinth
