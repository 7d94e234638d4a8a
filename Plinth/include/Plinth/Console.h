#pragma once

#include <Plinth/Defs.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace Veltro::Plinth {

/// The console host of this process: operators on the same machine attach to it, with the program
/// ravelo-console or any other that speaks lines, and run the commands that are registered with the component
/// registry's console.
///
/// Off until start(). It is never reachable from the network, and only the process's own user (and the
/// system's administrator) may attach: on Linux a Unix socket of mode 0600 whose peers are asked for their
/// user; on Windows a loopback port that asks for a random token first, which stands in a file that only the
/// user can read.
///
/// One thread, "Console", serves all operators; commands run on it, one after the other. Nobody else ever
/// waits for an operator: what one does not read is kept up to 8 MiB for each and 64 MiB for all, and then
/// left out.
///
/// Any thread may call any operation.
class PLINTH_API CConsoleHost {
public:
    /// At most so many operators at once; a further one is told so and sent away.
    static constexpr int MAX_OPERATORS = 100;

    /// Starts the host and enters it in the component registry as the console of "Local". Call it before the
    /// first thread pool is created, or soon after: the library looks for a console five times and then no
    /// more.
    /// @param path of the socket (Linux) or of the file with port and token (Windows), UTF-8; null for
    ///        defaultPath() of this process. What a former process left there is replaced.
    /// @return false, with one line logged at level 3: it runs already, another console is registered, or the
    /// place
    ///         cannot be used.
    static bool start(const char* path = nullptr);
    /// Ends it: waits for the command in progress, sends every operator away and removes the file. Commands
    /// stay registered for the next start(). Harmless when it does not run. Called by a command, it does not
    /// wait.
    static void stop();
    /// Where operators attach; empty while it does not run.
    static std::string path();

    /// The place of a process's console, in defaultFolder(): its name is the process's number.
    static std::string defaultPath(unsigned long process);
    /// A folder of the user's own; made by start() when it is missing.
    static std::string defaultFolder();
};

/// One operator's dialogue with the registered commands, for hosts with a way of their own to reach
/// operators.
///
/// The operator types lines of words. Besides the registered commands there are "help" (what there is),
/// "commands" (their names), "exit", and "mark <word>", after which every answer ends with a line "<word>
/// <result>": 0, or what the command returned, 127 when there is no such command, 126 when the line was
/// refused. Lines end with LF or CR LF and have at most 4096 bytes; longer ones, and those with control
/// characters, are refused with one line.
///
/// What a command logs while it runs, on the thread that runs it, is its answer, at whatever level; it goes
/// to the log as well if its level passes.
///
/// One thread at a time may use it, also different ones in turn.
class PLINTH_API CConsoleDialogue {
public:
    static constexpr std::size_t MAX_LINE = 4096;

    /// Takes a piece of an answer, which ends with a line's end; must not throw.
    using Output = std::function<void(const char* bytes, std::size_t length)>;

    explicit CConsoleDialogue(Output output);
    ~CConsoleDialogue();
    CConsoleDialogue(const CConsoleDialogue&) = delete;
    CConsoleDialogue& operator=(const CConsoleDialogue&) = delete;

    /// Takes what the operator typed, in pieces of any size. Runs nothing. At most one unfinished line is
    /// kept, but every finished one until it has run: give little at a time.
    void receive(const char* bytes, std::size_t length);
    /// Runs the oldest line that has not run. Returns whether there was one.
    bool runNext();
    /// Whether the operator has said "exit".
    bool isOver() const;

private:
    struct SImpl;
    std::unique_ptr<SImpl> m_impl;
};

/// An operator's end of the connection to a CConsoleHost. One thread at a time may use it.
class PLINTH_API CConsoleClient {
public:
    CConsoleClient();
    ~CConsoleClient();
    CConsoleClient(const CConsoleClient&) = delete;
    CConsoleClient& operator=(const CConsoleClient&) = delete;

    /// Attaches to the host at a path, see CConsoleHost::path(). May block for a moment.
    /// @return false, with the reason in reason(): nobody is there, or another user is.
    bool attach(const char* path);
    /// Sends bytes; waits until all are taken. False when the host has gone.
    bool send(const char* bytes, std::size_t length);
    /// Waits for bytes, for at most timeout_ms milliseconds; negative waits without limit.
    /// @return how many came, 0 when the time is over, -1 when the host has gone.
    int receive(char* bytes, std::size_t size, int timeout_ms);
    void detach();
    /// Why the last attach() failed, for a person.
    const std::string& reason() const;

private:
    struct SImpl;
    std::unique_ptr<SImpl> m_impl;
};

}  // namespace Veltro::Plinth
