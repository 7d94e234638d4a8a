// The lower bound: a loop written for each text by hand. It reads the text where it is and looks for line
// ends and separators with memchr.
#include <strings.h>

#include <cstring>

#include "parser/ParserSystem.h"

namespace Bench {

namespace {

const char* find(const char* from, const char* to, char c) {
    return static_cast<const char*>(std::memchr(from, c, static_cast<std::size_t>(to - from)));
}

std::uint64_t length(const char* from, const char* to) {
    return static_cast<std::uint64_t>(to - from);
}

std::uint64_t number(const char** from, const char* to) {
    std::uint64_t value = 0;
    for (; *from != to && **from >= '0' && **from <= '9'; ++*from) {
        value = value * 10 + static_cast<std::uint64_t>(**from - '0');
    }
    return value;
}

/// The bytes of a word; *from moves behind the space that ends it.
std::uint64_t word(const char** from, const char* to) {
    const char* stop = find(*from, to, ' ');
    if (stop == nullptr) stop = to;
    const std::uint64_t bytes = length(*from, stop);
    *from = stop != to ? stop + 1 : to;
    return bytes;
}

}  // namespace

const char* parser_name() {
    return "memchr";
}

bool parse_http(std::string_view text, SFound* found) {
    const char* line = text.data();
    const char* end = line + text.size();
    *found = SFound{};
    for (bool first = true;; first = false) {
        const char* line_end = find(line, end, '\n');
        if (line_end == nullptr) return false;
        const char* stop = line_end > line && line_end[-1] == '\r' ? line_end - 1 : line_end;
        if (stop == line) return true;
        if (first) {
            for (int i = 0; i < 3; ++i) found->bytes += word(&line, stop);
        } else {
            const char* colon = find(line, stop, ':');
            if (colon == nullptr) return false;
            const char* value = colon + 1;
            while (value != stop && (*value == ' ' || *value == '\t')) ++value;
            found->bytes += length(line, colon) + length(value, stop);
            if (colon - line == 14 && strncasecmp(line, "Content-Length", 14) == 0) {
                found->numbers += number(&value, stop);
            }
            ++found->fields;
        }
        line = line_end + 1;
    }
}

bool parse_sdp(std::string_view text, SFound* found) {
    const char* line = text.data();
    const char* end = line + text.size();
    char address[64];
    *found = SFound{};
    while (line != end) {
        const char* line_end = find(line, end, '\n');
        if (line_end == nullptr || line + 1 >= line_end || line[1] != '=') return false;
        const char* stop = line_end[-1] == '\r' ? line_end - 1 : line_end;
        const char type = line[0];
        line += 2;
        ++found->fields;
        if (type == 'm') {
            found->bytes += word(&line, stop);
            found->numbers += number(&line, stop);
            if (line != stop && *line == ' ') ++line;
        } else if (type == 'c') {
            found->bytes += word(&line, stop);
            found->bytes += word(&line, stop);
            std::size_t copied = 0;
            for (; line != stop && *line != '/' && copied + 1 < sizeof address; ++line)
                address[copied++] = *line;
            address[copied] = '\0';
            found->bytes += std::strlen(address);
        } else if (type == 'a') {
            const char* colon = find(line, stop, ':');
            if (colon != nullptr) {
                found->bytes += length(line, colon);
                line = colon + 1;
            }
        }
        found->bytes += length(line, stop);
        line = line_end + 1;
    }
    return true;
}

}  // namespace Bench
