// The trace filter of the socket layer, and the dumps of the reactor's threads.
#pragma once

#include <Plinth/Log.h>
#include <Plinth/Mutex.h>

#include <atomic>
#include <set>

namespace Veltro::Ravelo {

/// The socket dump rule, shared by the whole process, and the dumps of the thread modules.
///
/// The rule is written by the console command and read by every reactor thread; any thread may call. A change
/// is seen by the other threads soon, not at once.
class CDebugControl {
public:
    /// How much of the flow of socket events is traced.
    enum : unsigned { LEVEL_LESS = 0, LEVEL_MID = 1, LEVEL_MORE = 2 };

    static std::atomic<bool> sm_sock_on;         ///< whether the flow of socket events is traced at all
    static std::atomic<unsigned> sm_sock_level;  ///< LEVEL_LESS at first
    static std::atomic<bool> sm_sock_fd_all;     ///< whether every descriptor is traced
    static Plinth::CMutex& sm_sock_mutex;        ///< guards sm_sock_fd
    /// The descriptors to trace while sm_sock_fd_all is false.
    static std::set<int>& sm_sock_fd PLINTH_GUARDED_BY(sm_sock_mutex);

    /// Back to the defaults: nothing is traced.
    static void ResetSockDumpRule();
    /// Whether a trace site writes its line.
    /// @param level the verbosity that the site asks for at least, LEVEL_LESS to LEVEL_MORE.
    static bool SockDumpEnabled(int fd, unsigned level);
    /// Replaces the descriptors to trace. May throw std::bad_alloc, with the rule unchanged.
    static void selectSocks(std::set<int> fds);
    /// Logs the rule, at level 4.
    static void ShowSockDumpRule();

    /// Logs every reactor thread with its name and the class of the handler whose callback it runs, at
    /// level 4.
    static void DumpThreadModALL();
    /// The same for one thread; 0 means all. The argument is the system's id of the thread.
    static void DumpThreadModInfo(int thread_id);
    /// As DumpThreadModALL() at level 2, for the report of a deadlock.
    static void reportThreads();
};

}  // namespace Veltro::Ravelo
