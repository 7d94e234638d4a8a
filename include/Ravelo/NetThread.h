#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

/// Brings the reactor up and down: the public pool, number 0, and private pools 1 to 63.
///
/// A pool is a set of worker threads that share one queue, one multiplexer and one table of handlers. Every
/// operation may be called from any thread; creation and destruction take turns. Results: 0 on success and -1
/// on failure, unless said otherwise.
class RAVELO_API CNetThread {
public:
    /// Creates the public pool, or counts one more user of it.
    /// @param thread_num worker threads; rounded up to a multiple of the processors the process may use.
    /// Ignored when the pool exists.
    /// @param start_file_threads also starts the threads of asynchronous files, if they are not running.
    static int CreateThreadPool(unsigned int thread_num, bool start_file_threads);
    /// Creates a private pool, and the public pool if there is none.
    /// @return the pool's number, 1 to 63, the lowest that is free; -1 when there is none or set-up failed.
    static int CreatePrivatePool(unsigned int thread_num, bool start_file_threads);
    /// Takes one user off the public pool. The last one ends the whole library, once no private pool is left;
    /// then it waits for callbacks in progress. -1 if there is no public pool, or from a thread of the pool
    /// that would end.
    static int DestroyThreadPool();
    /// Ends a private pool and waits for its callbacks in progress. What it had queued is dropped; its
    /// handlers are left alone and get no further callback. -1 for a number without a pool, or from one of
    /// its threads.
    static int DestroyPrivatePool(int pool);

    /// Settings of the worker threads of the next pool created, and of that one only.
    /// @param priority 1 the lowest, 64 normal, 127 the highest.
    /// @param policy 0 shares the processors, 1 real time (needs privileges).
    /// @param param stack size in bytes; 0 the platform's default.
    static int SetThreadPriority(int priority, int policy, int param);
    /// Settings of the pacing threads of CMediaStreamReceiver, kept until changed; those of a library that
    /// runs already stay. @param policy 0 or 1. The others as of SetThreadPriority(), but unchecked.
    static int SetRecvThreadPriority(int priority, int policy, int param);
    /// Sets how often the pacing threads that do not write tick: every 10, 20, 25 or 30 ms for the levels 0
    /// to 3, and every 20 ms at the start and for any other level. A thread that paces receivers already goes
    /// on as before.
    static void SetRcvPriority(int level);
    /// Sockets that pools created from now on can wait for, per kind of interest; 4096 at the start. On
    /// Windows 4096 is also the most. @return 0, or -1 for 0 or, on Windows, for more.
    static int SetSocketCapacity(unsigned int per_kind);

    /// Sets how long a callback may run before one line (level 3) names its handler's class and id and its
    /// thread; 1000 ms at the start, 0 for never. At most 5 such lines a minute. Looked at every half second,
    /// so a callback is reported when it has run for as long as that, and up to a second longer.
    static void SetStallReport(unsigned int limit_ms);

    /// Starts the remote command server; it is switched off in this build: -1.
    static int EnableR3();
    /// Stops the remote command server and forgets its registered functions, as R3ServerExit(). 0.
    static int DisableR3();

    /// Logs every registered socket whose owner is alive (level 4). @return how many were logged.
    static int TraversalSock();
    /// Logs the registration of one socket; 0 means all.
    static void DumpSockEvent(int fd);
    /// Logs the registrations of several sockets. @param fds count descriptors; only read. Null, or a count
    /// below 1, logs nothing.
    static void DumpSockArrayEvent(int* fds, int count);
    /// Logs the registrations of one handler's sockets; 0 means all.
    static void DumpNethandlerEvent(std::int64_t id);
};

}  // namespace Veltro::Ravelo

extern "C" {
/// As Veltro::Ravelo::CNetThread::CreateThreadPool and DestroyThreadPool.
RAVELO_API int CreateThreadPool(unsigned int thread_num, bool start_file_threads);
RAVELO_API int DestroyThreadPool();
}
