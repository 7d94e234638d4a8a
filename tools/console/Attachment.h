// The connection to a console host, command by command.
#pragma once

#include <Plinth/Console.h>

#include <functional>
#include <string>
#include <vector>

namespace Veltro::Console {

/// Results of a command that the host gives itself.
enum : int { RESULT_REFUSED = 126, RESULT_UNKNOWN = 127 };

/// One operator's connection. One thread at a time may use it.
class CAttachment {
public:
    /// Takes one line of an answer, without its end.
    using Line = std::function<void(const std::string& line)>;

    /// Attaches to a path; false with the reason in error().
    bool open(const std::string& path);
    /// Runs a command and waits for the end of its answer. False, with the reason in error(), when the host
    /// has gone or says nothing for timeout_ms (negative: no limit); then the connection is of no more use.
    /// @param result what the command returned.
    bool run(const std::string& command, int timeout_ms, const Line& line, int& result);
    /// The names of the commands; empty when the host has gone.
    std::vector<std::string> commands();
    const std::string& error() const { return m_error; }

private:
    bool readLine(int timeout_ms, std::string& line);

    Plinth::CConsoleClient m_client;
    std::string m_mark;  ///< what no answer can hold: a random word
    std::string m_read;
    std::string m_error;
};

}  // namespace Veltro::Console
