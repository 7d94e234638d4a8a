#pragma once

#include <Plinth/Defs.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace Veltro::Plinth {

/// Priorities of a thread: 1 the lowest, 64 normal (what the process itself runs with), 127 the highest.
enum : int { PRIORITY_LOWEST = 1, PRIORITY_NORMAL = 64, PRIORITY_HIGHEST = 127 };

/// Scheduling policies of a thread.
enum : int {
    POLICY_NORMAL = 0,   ///< shares the processor with the process's other threads
    POLICY_REALTIME = 1  ///< runs ahead of them (Linux: SCHED_RR; Windows: one step up). Needs privileges.
};

/// A named thread whose body is threadProc() of a derived class.
///
/// The object must outlive its thread: a derived class calls destroyThread() in its own destructor, because
/// its part of the object goes before CThread's. A thread never destroys its own object. One whose priority
/// or policy the system refuses, for want of privileges, runs with the process's own. An object for which
/// there was no memory is safe to use, and its createThread() returns false.
///
/// Any thread may call any operation.
class PLINTH_API CThread {
public:
    /// @param name shown in the thread table and, shortened to the platform's limit (15 bytes on Linux), by
    ///        debuggers; UTF-8, copied; null counts as empty.
    /// @param priority 1 to 127, 64 normal; what lies outside counts as the nearest bound.
    /// @param policy POLICY_NORMAL or POLICY_REALTIME; any other value counts as normal.
    /// @param param stack size in bytes, 64 KiB at least; 0 or less leaves the platform's default.
    CThread(const char* name, int priority, int policy, int param);
    virtual ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    /// Starts the thread, not cancelled and with its watchdog disarmed. May be called again once the former
    /// thread is over.
    /// @return false if the thread is still running or the system has none to give.
    bool createThread();
    /// Asks the running thread to end: looping() is false until the next start. Does not wait.
    void cancelThread();
    /// cancelThread(), then waits until the thread has ended. Harmless when it was never started or has
    /// ended. Called by the thread itself, it only cancels.
    void destroyThread();
    /// Whether the body has returned, or the thread was never started.
    bool isThreadOver() const;
    /// Whether the body is to go on: false from cancelThread() to the next start.
    bool looping() const;
    /// The system's id of the thread while its body runs, else 0.
    unsigned long getThreadId() const;
    /// The whole name given at construction; lives as long as the object.
    const char* getName() const;

    /// Arms the thread's watchdog: it expires timeout_ms milliseconds from now unless armed again; 0 or less
    /// expires at once. Steady clock.
    void setWatchdog(std::int64_t timeout_ms);
    /// Whether an armed watchdog has expired.
    bool isWatchdogExpired() const;

protected:
    /// The thread's body, called on the new thread once for each start. An exception that leaves it is logged
    /// at level 1 and ends the thread as a return does.
    virtual void threadProc() = 0;

private:
    struct SImpl;
    static void run(CThread* self);
    void runBody();
    friend struct SThreadStart;
    std::unique_ptr<SImpl> m_impl;  // null without memory
};

/// A CThread that runs a callable.
class PLINTH_API CThreadLite : public CThread {
public:
    using ThreadBody = std::function<void(CThreadLite& self)>;

    /// @param body called on the new thread with this object, once for each start; kept until the object
    /// goes.
    ///        An empty one makes a thread that ends at once.
    CThreadLite(ThreadBody body, const char* name, int priority = PRIORITY_NORMAL, int policy = POLICY_NORMAL,
                int param = 0);
    /// destroyThread().
    ~CThreadLite() override;

protected:
    void threadProc() override;

private:
    ThreadBody m_body;
};

/// The system's id of the calling thread, never 0.
PLINTH_API unsigned long getCurrentThreadId();

/// How many processors the process was allowed to run on when this was first asked for; at least 1.
PLINTH_API unsigned getProcessorCount();

/// Pins the calling thread to one of the process's processors.
/// @param processor 0 to getProcessorCount() - 1, counted over those that the process may run on.
/// @return false, with nothing changed, if there is no such processor or the system refuses.
PLINTH_API bool pinCurrentThread(unsigned processor);

/// Gives the rest of the calling thread's time slice away.
PLINTH_API void yieldThread();

/// Sleeps for at least time_ms milliseconds of steady time; 0 or less does not sleep.
PLINTH_API void sleepMilliSecond(std::int64_t time_ms);

}  // namespace Veltro::Plinth
