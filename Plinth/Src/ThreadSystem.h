// What a thread needs of the platform; bodies in Thread_linux.cpp and Thread_win.cpp.
#pragma once

#include <cstddef>

namespace Veltro::Plinth::ThreadSystem {

using Entry = void (*)(void* argument);
struct SHandle;

/// Starts a thread that runs entry(argument); null if the system refuses. stack_bytes 0 is the default size.
SHandle* start(Entry entry, void* argument, std::size_t stack_bytes);
/// Waits for the thread's end and frees the handle.
void join(SHandle* handle);
/// Shows the calling thread under a name in debuggers, shortened to the platform's limit.
void setCurrentName(const char* name);
/// Applies priority (1..127) and policy to the calling thread, as far as the system allows.
void setCurrentPriority(int priority, int policy);

}  // namespace Veltro::Plinth::ThreadSystem
