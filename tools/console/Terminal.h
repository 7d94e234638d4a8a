// The operator's terminal: mirrored in Terminal_linux.cpp and Terminal_win.cpp.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Veltro::Console {

/// Whether the program talks to a person.
bool isInputTerminal();
bool isOutputTerminal();
/// The columns of the terminal that output goes to; 80 when it does not say.
std::size_t terminalColumns();

/// Lines that a person types; with editing, history and completion where the platform has them.
class CTerminal {
public:
    /// The words that the last word of the line before the cursor may become.
    using Complete = std::function<std::vector<std::string>(const std::string& line)>;

    CTerminal(const std::string& prompt, Complete complete);
    ~CTerminal();
    CTerminal(const CTerminal&) = delete;
    CTerminal& operator=(const CTerminal&) = delete;

    /// The next line, without its end; false at the end of input.
    bool read(std::string& line);

private:
    struct SImpl;
    std::unique_ptr<SImpl> m_impl;
};

}  // namespace Veltro::Console
