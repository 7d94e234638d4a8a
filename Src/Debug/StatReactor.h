// The figures of the reactor: its pools, threads, handlers, sockets, timers and messages.
#pragma once

#include "Debug/StatTable.h"

namespace Veltro::Ravelo::StatReactor {

// Each reads what is there at the moment, under the core's own locks. Any thread; may throw std::bad_alloc.

SStatTable pools();
SStatTable threads();
/// Handlers in the pools' tables, and their sockets, by class.
SStatTable handlers();
/// Registered sockets by what is waited for.
SStatTable sockets();
SStatTable timers();
SStatTable messages();
/// The memory that handlers take by TsMalloc() and Malloc().
SStatTable memory();
/// How long callbacks took, by class, as far as that was noted.
SStatTable times();

}  // namespace Veltro::Ravelo::StatReactor
