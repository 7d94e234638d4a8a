// What a message benchmark needs of a library.
#pragma once

#include <memory>

namespace Bench {

/// Gets messages, on whichever thread the library chooses.
class CReceiver {
public:
    virtual ~CReceiver() = default;
    virtual void OnMessage(long info) = 0;
};

/// A library's way to hand a message to an object on another thread. Every message is delivered, once.
class CMessageSystem {
public:
    /// Ends the threads; nothing may be under way.
    virtual ~CMessageSystem() = default;

    /// Makes a receiver known. Before the first Post.
    /// @param pool 0 or 1: the set of threads that serve it.
    /// @return its number.
    virtual int Add(CReceiver& receiver, int pool) = 0;

    /// Sends a message; any thread.
    virtual void Post(int receiver, long info) = 0;
};

/// Starts a system; defined by each library's file. The threads of a single pool inherit the processors of
/// the caller; of two pools, the threads of pool 0 run on processor 0 and those of pool 1 on processor 1.
std::unique_ptr<CMessageSystem> make_message_system(int pools, unsigned threads_per_pool);

/// The name that the results carry. Defined by each library's file.
const char* message_system_name();

}  // namespace Bench
