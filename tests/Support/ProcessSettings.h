// Settings of the whole test process that are the platform's own.
#pragma once

namespace Veltro::TestSupport {

/// Lets the process have at most a number of descriptors; false where the platform has no such limit.
bool setDescriptorLimit(int descriptors);

/// Counts broken-pipe signals from now on, where the platform has them.
void watchPipeSignal();
int pipeSignalCount();

/// Interrupts the main thread's system calls a number of times, every 20 ms, and calls an
/// async-signal-safe function each time; false where the platform cannot.
bool interruptMainThread(int times, void (*action)());
int interruptionCount();

}  // namespace Veltro::TestSupport
