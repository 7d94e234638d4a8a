// What the reactor needs of the media receive threads, and what receivers need to be paced by them.
#pragma once

#include <cstdint>
#include <vector>

namespace Veltro::Ravelo {
class CMediaStreamReceiver;
}

namespace Veltro::Ravelo::RecvThreads {

/// Makes the groups of receivers, two sets of one for each processor; a group's thread starts with its first
/// receiver. 0, or -1 without memory.
int start(unsigned processors, int priority, int policy, int param);
/// Ends the threads and closes the receivers that are left; returns when the public pool has delivered what
/// they had to say. From here on none can join. Harmless when nothing was started. Under the creation mutex,
/// as start() and setPace().
void stop();
/// Sets the milliseconds between two ticks, for threads that start from now on.
void setPace(int value);

/// Hands a receiver to the group of its mode that has the fewest; -1 when there are no groups, no thread or
/// no memory.
int join(CMediaStreamReceiver& receiver);
/// Whether the calling thread is one of these.
bool isCurrent();
/// How many receivers each group of the set for a mode has, for tests.
std::vector<unsigned> numbers(std::uint32_t mode);

}  // namespace Veltro::Ravelo::RecvThreads
