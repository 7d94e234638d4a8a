#pragma once

#include <Plinth/Defs.h>
#include <Plinth/Function.h>

#include <cstdint>
#include <memory>

namespace Veltro::Plinth {

/// Priorities of a thread: 1 the lowest, 64 normal, 127 the highest.
enum : int { PRIORITY_LOWEST = 1, PRIORITY_NORMAL = 64, PRIORITY_HIGHEST = 127 };

/// Scheduling policies of a thread.
enum : int {
    POLICY_NORMAL = 0,   ///< shares the processor with the process's other threads
    POLICY_REALTIME = 1  ///< runs ahead of them (Linux: SCHED_RR; Windows: one step up). Needs privileges.
};

/// A named thread whose body is threadProc() of a derived class.
///
/// The object must outlive its thread: destroyThread() before the object goes, from another thread. Settings
/// that the system refuses (a priority without the privilege for it) are left as the system set them.
class PLINTH_API CThread {
public:
    /// @param name shown in the thread table and, shortened to the platform's limit, by debuggers; copied.
    /// @param priority 1 to 127, 64 normal.
    /// @param policy POLICY_NORMAL or POLICY_REALTIME.
    /// @param param stack size in bytes; 0 leaves the platform's default.
    CThread(const char* name, int priority, int policy, int param);
    virtual ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    /// Starts the thread; returns false if the system has no thread to give or it was started before.
    bool createThread();
    /// Asks the thread to end: looping() is false from now on. Does not wait.
    void cancelThread();
    /// cancelThread(), then waits until the thread has ended. Harmless when it was never started or has
    /// ended. Must not be called by the thread itself.
    void destroyThread();
    /// Whether the body has returned, or the thread was never started.
    bool isThreadOver() const;
    /// Whether the body is to go on: false once cancelThread() was called.
    bool looping() const;
    /// The system's id of the thread; 0 until its body runs.
    unsigned long getThreadId() const;
    /// The whole name given at construction.
    const char* getName() const;

    /// Arms the thread's watchdog: it expires timeout_ms milliseconds from now unless armed again. Steady
    /// clock.
    void setWatchdog(std::int64_t timeout_ms);
    /// Whether an armed watchdog has expired.
    bool isWatchdogExpired() const;

protected:
    /// The thread's body; runs once, on the new thread.
    virtual void threadProc() = 0;

private:
    struct SImpl;
    static void run(CThread* self);
    friend struct SThreadStart;
    std::unique_ptr<SImpl> m_impl;
};

/// A CThread that runs a callable.
class PLINTH_API CThreadLite : public CThread {
public:
    using ThreadBody = std::function<void(CThreadLite& self)>;

    /// @param body called once on the new thread with this object; copied.
    CThreadLite(ThreadBody body, const char* name, int priority = PRIORITY_NORMAL, int policy = POLICY_NORMAL,
                int param = 0);
    ~CThreadLite() override;

protected:
    void threadProc() override;

private:
    ThreadBody m_body;
};

/// The system's id of the calling thread.
PLINTH_API unsigned long getCurrentThreadId();

/// How many processors the calling process may run on; at least 1.
PLINTH_API unsigned getProcessorCount();

/// Pins the calling thread to one processor (0 the first); returns false if the system refuses.
PLINTH_API bool pinCurrentThread(unsigned processor);

/// Gives the rest of the calling thread's time slice away.
PLINTH_API void yieldThread();

/// Sleeps for at least the given time.
PLINTH_API void sleepMilliSecond(std::int64_t time_ms);

}  // namespace Veltro::Plinth
