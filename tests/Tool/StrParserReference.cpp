#include "StrParserReference.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace Veltro::Ravelo {

namespace {

bool isSpace(int c) {
    return c == ' ' || (c >= 9 && c <= 13);
}

bool isDigit(int c) {
    return c >= '0' && c <= '9';
}

bool isHexDigit(int c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isPrintable(int c) {
    return c > ' ' && c < 127;
}

bool isOneOf(int c, const std::string& set) {
    return c >= 0 && set.find(static_cast<char>(c)) != std::string::npos;
}

std::string upperCase(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

std::string cut(const std::string& text, int from, int to) {
    return text.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
}

}  // namespace

int CStrParserReference::go(int index) {
    const int moved = index - here();
    if (moved != 0) offset = index;
    return moved;
}

int CStrParserReference::GetCurChar() const {
    return at(offset) < 0 ? 0 : static_cast<signed char>(at(offset));
}

int CStrParserReference::CheckPrevChar() const {
    return at(here() - 1) < 0 ? 0 : static_cast<signed char>(at(here() - 1));
}

int CStrParserReference::LocateOffset(int n) {
    if (n >= length()) n = length() - 1;
    if (n < 0) n = 0;
    offset = n;
    return text.empty() ? -1 : n;
}

int CStrParserReference::lineHead() const {
    int index = here();
    if (at(index) == '\n') --index;
    while (index >= 0 && !(at(index) == '\n')) --index;
    if (index < 0) return 0;
    return index + 1 < length() ? index + 1 : index;
}

int CStrParserReference::ResetToLineHead() {
    return offset = lineHead();
}

bool CStrParserReference::Compare(const std::string& s) const {
    return text.substr(static_cast<std::size_t>(here())).rfind(s, 0) == 0;
}

bool CStrParserReference::CompareCase(const std::string& s) const {
    return upperCase(text).substr(static_cast<std::size_t>(here())).rfind(upperCase(s), 0) == 0;
}

int CStrParserReference::Expect(char c) {
    return at(offset) == static_cast<unsigned char>(c) ? ++offset : -1;
}

int CStrParserReference::ExpectEOL() {
    for (const char* line_break : {"\r\n", "\n"}) {
        if (!Compare(line_break)) continue;
        offset += line_break[0] == '\r' ? 2 : 1;
        return offset;
    }
    return -1;
}

std::string CStrParserReference::number(bool* runs_to_end) const {
    std::string digits;
    bool point = false;
    bool digit = false;
    int index = offset;
    for (;; ++index) {
        const int c = at(index);
        if (c == '-' && index == offset) {
            // a sign
        } else if (isDigit(c)) {
            digit = true;
        } else if (c == '.' && digit && !point) {
            point = true;
        } else {
            break;
        }
        digits += static_cast<char>(c);
    }
    if (!digit) return "";
    *runs_to_end = index >= length();
    if (!*runs_to_end && digits.back() == '.') digits.pop_back();
    return digits;
}

std::int64_t CStrParserReference::ConsumeInt64() {
    bool runs_to_end = false;
    const std::string digits = number(&runs_to_end);
    status = digits.empty() ? -1 : 0;
    if (digits.empty()) return -1;
    offset += static_cast<int>(digits.size()) + (runs_to_end ? 1 : 0);
    return std::strtoll(digits.c_str(), nullptr, 10);
}

std::uint64_t CStrParserReference::ConsumeUint64() {
    bool runs_to_end = false;
    const std::string digits = number(&runs_to_end);
    status = digits.empty() ? -1 : 0;
    if (digits.empty()) return 0;
    offset += static_cast<int>(digits.size()) + (runs_to_end ? 1 : 0);
    return std::strtoull(digits.c_str(), nullptr, 10);
}

double CStrParserReference::ConsumeDouble() {
    bool runs_to_end = false;
    const std::string digits = number(&runs_to_end);
    status = digits.empty() ? -1 : 0;
    if (digits.empty()) return -1;
    offset += static_cast<int>(digits.size()) + (runs_to_end ? 1 : 0);
    return std::strtod(digits.c_str(), nullptr);
}

unsigned CStrParserReference::ConsumeHexUint32() {
    status = -1;
    if (at(offset) < 0) return 0;
    status = 0;
    std::string digits;
    for (; isHexDigit(at(offset)); ++offset) digits += static_cast<char>(at(offset));
    if (digits.size() > 8) digits = digits.substr(digits.size() - 8);
    return static_cast<unsigned>(std::strtoull(digits.c_str(), nullptr, 16));
}

int CStrParserReference::ConsumeWord(std::string* piece) {
    int index = here();
    while (isPrintable(at(index))) ++index;
    *piece = cut(text, here(), index);
    return go(index);
}

int CStrParserReference::ConsumeWhitespace() {
    int index = here();
    while (isSpace(at(index))) ++index;
    return go(index);
}

int CStrParserReference::ConsumeWhitespaceInLine() {
    int index = here();
    while (isSpace(at(index)) && at(index) != '\r' && at(index) != '\n') ++index;
    return go(index);
}

int CStrParserReference::ConsumeLength(unsigned n, std::string* piece) {
    int index = here();
    for (; n > 0 && index < length(); --n) ++index;
    *piece = cut(text, here(), index);
    return go(index);
}

int CStrParserReference::ConsumeSentence(const std::string& delims, std::string* piece) {
    int index = here();
    while (index < length() && !isOneOf(at(index), delims)) ++index;
    *piece = cut(text, here(), index);
    return go(index < length() ? index + 1 : index);
}

int CStrParserReference::ConsumeUntilDigit() {
    int index = here();
    while (index < length() && !isDigit(at(index))) ++index;
    return index < length() ? go(index) : -1;
}

int CStrParserReference::ConsumeUntilHexDigit() {
    int index = here();
    while (index < length() && !isHexDigit(at(index))) ++index;
    return index < length() ? go(index) : -1;
}

int CStrParserReference::ConsumeUntil(char c) {
    const std::size_t found = text.find(c, static_cast<std::size_t>(here()));
    return found != std::string::npos ? go(static_cast<int>(found)) : -1;
}

int CStrParserReference::ConsumeUntil(const unsigned char* table) {
    if (table == nullptr) return -1;
    for (int index = here(); index < length(); ++index) {
        if (table[at(index)] != 0) return go(index);
    }
    return -1;
}

int CStrParserReference::ConsumeUntilinLine(char c) {
    for (int index = here(); index < length(); ++index) {
        if (at(index) == static_cast<unsigned char>(c)) return go(index);
        if (at(index) == '\n') return -1;
    }
    return -1;
}

int CStrParserReference::ConsumeUntilinLine(const unsigned char* table) {
    if (table == nullptr) return -1;
    for (int index = here(); index < length(); ++index) {
        if (at(index) == '\n' || table[at(index)] != 0) return go(index);
    }
    return -1;
}

int CStrParserReference::GetThru(char c) {
    const std::size_t found = text.find(c, static_cast<std::size_t>(here()));
    if (found == std::string::npos) return -1;
    const int moved = static_cast<int>(found) + 1 - here();
    offset = static_cast<int>(found) + 1;
    if (offset > length() - 1) offset = length() - 1;
    return moved;
}

int CStrParserReference::ConsumeUntilNextLine() {
    const std::size_t found = text.find('\n', static_cast<std::size_t>(here()));
    if (found == std::string::npos) return -1;
    const auto line_end = static_cast<int>(found);
    if (line_end < length() - 1) return go(line_end + 1);
    offset = line_end;
    return offset;
}

int CStrParserReference::GetLineNum() const {
    int lines = 0;
    for (const char c : text) lines += c == '\n' ? 1 : 0;
    return lines;
}

int CStrParserReference::GetCurLinelength() const {
    const int head = lineHead();
    int index = head;
    while (index < length() && at(index) != '\n') ++index;
    if (index < length() && index > head && at(index - 1) == '\r') --index;
    return index - head;
}

int CStrParserReference::nextLine(int index) const {
    while (index < length() && at(index) != '\n') ++index;
    return index + 1;
}

int CStrParserReference::firstLine() const {
    if (offset == 0) return 0;
    return nextLine(offset > 1 ? offset - 1 : offset);
}

int CStrParserReference::findLine(const std::string& head, int line) const {
    for (; line < length(); line = nextLine(line)) {
        if (text.substr(static_cast<std::size_t>(line)).rfind(head, 0) == 0) return line;
    }
    return -1;
}

int CStrParserReference::GetLineNumWithHead(const std::string& head) const {
    if (offset >= length()) return 0;
    int lines = 0;
    for (int line = findLine(head, firstLine()); line >= 0; line = findLine(head, nextLine(line))) ++lines;
    return lines;
}

int CStrParserReference::GetLineWithHead(const std::string& head, std::string* line) {
    const int found = offset < length() ? findLine(head, firstLine()) : -1;
    if (found < 0) return -1;
    offset = nextLine(found) < length() ? nextLine(found) : length() - 1;
    CStrParserReference there(text, found);
    *line = cut(text, found, found + there.GetCurLinelength());
    return static_cast<int>(line->size());
}

int CStrParserReference::locate(const std::string& s, int to, bool any_case) {
    if (s.empty()) return -1;
    const std::string whole = any_case ? upperCase(text) : text;
    const std::string wanted = any_case ? upperCase(s) : s;
    for (int index = here(); index + static_cast<int>(s.size()) <= to; ++index) {
        if (whole.compare(static_cast<std::size_t>(index), s.size(), wanted) == 0) return offset = index;
    }
    return -1;
}

int CStrParserReference::LocateString(const std::string& s) {
    return locate(s, length(), false);
}

int CStrParserReference::LocateStringCase(const std::string& s) {
    return locate(s, length(), true);
}

int CStrParserReference::LocateStringInLine(const std::string& s) {
    return locate(s, std::min(nextLine(here()), length()), false);
}

int CStrParserReference::LocateStringInLineCase(const std::string& s) {
    return locate(s, std::min(nextLine(here()), length()), true);
}

int CStrParserReference::ConsumeIpAddr(std::string* out, unsigned size) {
    out->clear();
    if (size < 7 || offset >= length()) return -1;
    const std::string rest = text.substr(static_cast<std::size_t>(offset));
    const auto run = [this](int index, const std::string& set) {
        while (isOneOf(at(index), set)) ++index;
        return index;
    };
    const std::string literal = "0123456789abcdefABCDEF:.%";
    const auto limit = [size](const std::string& piece) { return piece.substr(0, size); };
    long long given[4];
    if (std::sscanf(rest.c_str(), "%lld.%lld.%lld.%lld", &given[0], &given[1], &given[2], &given[3]) == 4) {
        std::vector<char> printed(size);
        int numbers[4];
        for (int i = 0; i < 4; ++i) {
            numbers[i] = static_cast<int>(std::clamp<long long>(given[i], INT32_MIN, INT32_MAX));
        }
        std::snprintf(printed.data(), size, "%d.%d.%d.%d", numbers[0], numbers[1], numbers[2], numbers[3]);
        *out = printed.data();
        go(run(offset, "0123456789."));
    } else if (at(offset) != '[') {
        int stop = run(offset, literal);
        *out = limit(cut(text, offset, stop));
        if (out->find(':') == std::string::npos) {
            for (stop = offset; isPrintable(at(stop)) && at(stop) != ':';) ++stop;
            *out = limit(cut(text, offset, stop));
        }
        if (out->empty()) return -1;
        go(stop);
    } else {
        const int stop = run(offset + 1, literal);
        if (at(stop) != ']') return -1;
        *out = limit(cut(text, offset + 1, stop));
        if (out->empty()) return -1;
        go(stop + 1);
    }
    return static_cast<int>(out->size());
}

}  // namespace Veltro::Ravelo
