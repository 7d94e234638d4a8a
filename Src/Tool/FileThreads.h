// The threads on which slow device calls of files run, and their jobs.
#pragma once

#include <cstdint>

namespace Veltro::Ravelo {

/// Kinds of jobs. Those of a file come before the others.
enum : std::uint32_t {
    FILE_JOB_WRITE = 0,
    FILE_JOB_READ = 1,
    FILE_JOB_CLOSE = 3,
    FILE_JOB_MESSAGE = 4  ///< belongs to no file: delivers one message of the I/O queue
};

/// One thing to do. Those of a file are part of the file, so that queueing one takes no memory.
struct SFileJob {
    const std::uint32_t type;
    std::int64_t argument = 0;
    bool queued = false;
    SFileJob* next = nullptr;

    explicit SFileJob(std::uint32_t job_type) : type(job_type) {}
};

/// The jobs of one file: they run one at a time, on whichever file thread is free, in the order in which they
/// were queued. A file thread never waits for another one that is busy with the same file: what is queued
/// meanwhile stays here until that one is done.
///
/// A job that is queued again before it has begun stays where it is and runs once, with the highest argument
/// it was given.
class CFileJobs {
public:
    CFileJobs(const CFileJobs&) = delete;
    CFileJobs& operator=(const CFileJobs&) = delete;

    /// Queues a job. @return false, with nothing queued, when no file thread runs. Any thread; never blocks.
    bool queue(std::uint32_t type, std::int64_t argument);

protected:
    /// What a file does. Not virtual functions: a DLL would export the type information of a class that has
    /// some, next to exported ones.
    struct SCalls {
        /// Does a job, on a file thread.
        void (*run)(CFileJobs& file, std::uint32_t type, std::int64_t argument);
        /// Keeps the file alive while jobs wait or run: called when the first is queued, and when none is
        /// left.
        void (*hold)(CFileJobs& file);
        void (*release)(CFileJobs& file);
    };
    /// The calls of a derived class, which has functions of these names.
    template <typename File>
    static constexpr SCalls callsOf() {
        return {[](CFileJobs& file, std::uint32_t type, std::int64_t argument) {
                    static_cast<File&>(file).run(type, argument);
                },
                [](CFileJobs& file) { static_cast<File&>(file).hold(); },
                [](CFileJobs& file) { static_cast<File&>(file).release(); }};
    }

    explicit CFileJobs(const SCalls& calls) : m_calls(calls) {}
    ~CFileJobs() = default;

private:
    friend class CFileThreads;

    SFileJob& job(std::uint32_t type);

    const SCalls m_calls;
    // The rest is guarded by the job list's mutex.
    SFileJob m_write{FILE_JOB_WRITE};
    SFileJob m_read{FILE_JOB_READ};
    SFileJob m_close{FILE_JOB_CLOSE};
    SFileJob* m_head = nullptr;
    SFileJob* m_tail = nullptr;
    bool m_listed = false;        // waits for a file thread, or has one
    CFileJobs* m_next = nullptr;  // among those that wait for a file thread
};

/// What the reactor needs of the file threads.
namespace FileThreads {

/// Starts the threads "Ravelo::FileThread", twice as many as there are processors; 0 or -1. They deliver the
/// I/O messages that wait already. Under the creation mutex, as stop().
int start(unsigned processors);
/// Does what is queued, then ends the threads and waits for them.
void stop();
/// Asks a file thread to deliver one waiting I/O message; nothing when none runs.
void deliverIoMessage();

/// Whether jobs are taken.
bool areRunning();
/// Whether the calling thread is one of them.
bool isOwnThread();
/// Whether the calling thread is one of them and they are being stopped.
bool isOwnThreadStopping();

}  // namespace FileThreads

}  // namespace Veltro::Ravelo
