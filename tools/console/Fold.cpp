#include "console/Fold.h"

#include <algorithm>

namespace Veltro::Console {

namespace {

constexpr std::size_t INDENT = 4;

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// How many bytes of a text fill so many columns, each character one column.
std::size_t bytesOf(const std::string& text, std::size_t columns) {
    std::size_t end = 0;
    while (end < text.size() && (columns > 0 || isContinuation(text[end]))) {
        if (!isContinuation(text[end])) --columns;
        ++end;
    }
    while (end < text.size() && isContinuation(text[end])) ++end;
    return end;
}

bool isRule(const std::string& line) {
    return std::all_of(line.begin(), line.end(), [](char c) { return c == '-'; });
}

/// Without the dash that closes a line in a frame of dashes, if it has one.
std::string withoutFrame(const std::string& line) {
    if (!line.starts_with("- ") || !line.ends_with("-")) return line;
    const std::size_t last = line.find_last_not_of(" -");
    return last == std::string::npos ? line : line.substr(0, last + 1);
}

}  // namespace

std::string fold(const std::string& line, std::size_t columns) {
    if (columns == 0) return line + "\n";
    if (isRule(line)) return line.substr(0, columns) + "\n";
    if (bytesOf(line, columns) >= line.size()) return line + "\n";
    std::string folded;
    std::string rest = withoutFrame(line);
    const std::string indent(std::min(INDENT, columns / 2), ' ');
    for (;;) {
        const std::size_t room = bytesOf(rest, columns);
        if (room >= rest.size()) return folded + rest + "\n";
        std::size_t end = rest.rfind(' ', room);
        // Blanks at the front are the indentation.
        if (end == std::string::npos || rest.find_first_not_of(' ') >= end) end = room;
        folded += rest.substr(0, end) + "\n";
        const std::size_t next = rest.find_first_not_of(' ', end);
        if (next == std::string::npos) return folded;
        rest = indent + rest.substr(next);
    }
}

}  // namespace Veltro::Console
