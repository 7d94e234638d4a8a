#pragma once

#include <Ravelo/NFile.h>

namespace Veltro::Ravelo {

/// The storage of files that are opened without a device of the application's own, CDefaultStorDev: a file of
/// the system. Close() ends it; it is used by one thread at a time.
/// @return null when no memory is left.
CNStorDev_IF* makeDefaultStorDev();

}  // namespace Veltro::Ravelo
