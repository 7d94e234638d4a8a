#include <windows.h>

#include <io.h>

#include <cstdio>
#include <iostream>
#include <utility>

#include "console/Terminal.h"

namespace Veltro::Console {

// The system's own console edits lines and keeps their history; completion is not there.
struct CTerminal::SImpl {
    std::string prompt;
};

CTerminal::CTerminal(const std::string& prompt, Complete) : m_impl(std::make_unique<SImpl>()) {
    m_impl->prompt = prompt;
}

CTerminal::~CTerminal() = default;

bool CTerminal::read(std::string& line) {
    std::printf("%s", m_impl->prompt.c_str());
    std::fflush(stdout);
    return static_cast<bool>(std::getline(std::cin, line));
}

bool isInputTerminal() {
    return ::_isatty(::_fileno(stdin)) != 0;
}

bool isOutputTerminal() {
    return ::_isatty(::_fileno(stdout)) != 0;
}

std::size_t terminalColumns() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info) || info.dwSize.X <= 0) return 80;
    return static_cast<std::size_t>(info.dwSize.X);
}

}  // namespace Veltro::Console
