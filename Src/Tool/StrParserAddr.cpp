// Addresses of the text parser.
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/StrParser.h>

#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "Tool/ByteScan.h"
#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {

namespace {

constexpr unsigned SHORTEST_TEXT_BYTES = 7;

/// Reads a decimal number as scanf's "%d" does, spaces and sign before it included.
/// @return the position behind it; null without a digit. A number that is too large becomes the nearest one.
const char* readDecimal(const char* from, const char* to, int* value) {
    from = ByteScan::skipClass(from, to, ByteScan::SPACE);
    const bool negative = from != to && *from == '-';
    if (from != to && (*from == '-' || *from == '+')) ++from;
    const char* digit = from;
    const std::int64_t most = std::int64_t{std::numeric_limits<int>::max()} + (negative ? 1 : 0);
    std::int64_t magnitude = 0;
    for (; digit != to && ByteScan::isA(*digit, ByteScan::DIGIT); ++digit) {
        magnitude = std::min(most, magnitude * 10 + std::int64_t{ByteScan::digitValue(*digit)});
    }
    *value = static_cast<int>(negative ? -magnitude : magnitude);
    return digit != from ? digit : nullptr;
}

/// Reads "a.b.c.d", whatever the size of the four.
bool readFourNumbers(const char* from, const char* to, std::array<int, 4>* numbers) {
    for (std::size_t i = 0; i < numbers->size(); ++i) {
        if (i > 0 && (from == to || *from++ != '.')) return false;
        from = readDecimal(from, to, &(*numbers)[i]);
        if (from == nullptr) return false;
    }
    return true;
}

/// Prints "a.b.c.d", cut to size - 1 bytes and a NUL. As snprintf would, which takes longer than all the
/// rest.
void printNumbers(const std::array<int, 4>& numbers, char* out, unsigned int size) {
    std::array<char, 48> text{};
    char* end = text.data();
    for (const int number : numbers) {
        if (end != text.data()) *end++ = '.';
        end = std::to_chars(end, text.data() + text.size(), number).ptr;
    }
    copyText(text.data(), end, out, size);
}

/// Copies at most size bytes; without a NUL if they fill the destination.
void copyCut(const char* from, const char* to, char* out, unsigned int size) {
    std::memcpy(out, from, std::min(static_cast<std::size_t>(to - from), std::size_t{size}));
}

/// Copies what is in brackets. @return the position behind them, or null.
const char* takeBracketed(const char* from, const char* to, char* out, unsigned int size) {
    const char* stop = ByteScan::skipClass(from + 1, to, ByteScan::ADDRESS_BYTE);
    if (stop == to || *stop != ']') return nullptr;
    copyCut(from + 1, stop, out, size);
    return stop + 1;
}

/// Copies an IPv6 literal or a host name. @return the position behind it.
const char* takeBare(const char* from, const char* to, char* out, unsigned int size) {
    const char* stop = ByteScan::skipClass(from, to, ByteScan::ADDRESS_BYTE);
    copyCut(from, stop, out, size);
    if (std::memchr(out, ':', size) != nullptr) return stop;
    const char* word_end = ByteScan::skipPrintable(from, to);
    stop = ByteScan::findByte(from, word_end, ':');
    copyCut(from, stop, out, size);
    return stop;
}

/// Copies the address at a position and gives the position behind it, or null.
const char* takeAddress(const char* from, const char* to, char* out, unsigned int size) {
    std::array<int, 4> numbers{};
    if (readFourNumbers(from, to, &numbers)) {
        printNumbers(numbers, out, size);
        return ByteScan::skipClass(from, to, ByteScan::IPV4_BYTE);
    }
    return *from == '[' ? takeBracketed(from, to, out, size) : takeBare(from, to, out, size);
}

int familyOf(const char* text) {
    CSockAddrIPv4 ipv4;
    if (ipv4.SetIp(text) == 0) return 4;
    CSockAddrIPv6 ipv6;
    return ipv6.SetIp(text) == 0 ? 6 : -1;
}

/// The family of a text that may lack its NUL.
int familyOfCut(const char* text, std::size_t length) {
    const std::unique_ptr<char[]> whole(new (std::nothrow) char[length + 1]);
    if (whole == nullptr) return -1;
    std::memcpy(whole.get(), text, length);
    whole[length] = '\0';
    return familyOf(whole.get());
}

}  // namespace

int CStrParser::ConsumeIpAddr(char* out, unsigned int size, int* family) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    if (out == nullptr || size < SHORTEST_TEXT_BYTES || self.rest() == 0) return -1;
    std::memset(out, 0, size);
    const char* stop = takeAddress(self.cursor(), self.end(), out, size);
    if (stop == nullptr || out[0] == '\0') return -1;
    self.moveTo(stop);
    const void* terminator = std::memchr(out, '\0', size);
    const std::size_t length = terminator != nullptr ? std::strlen(out) : size;
    if (family != nullptr) *family = terminator != nullptr ? familyOf(out) : familyOfCut(out, length);
    return static_cast<int>(length);
}

int CStrParser::ReplaceIpAddr(const char* text) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    if (text == nullptr) return -1;
    std::array<char, 128> scratch{};
    const int start = self.m_offset;
    const int length = ConsumeIpAddr(scratch.data(), scratch.size(), nullptr);
    self.m_offset = start;
    return length < 0 ? -1 : replaceRange(self, start, start + length - 1, text);
}

}  // namespace Veltro::Ravelo
