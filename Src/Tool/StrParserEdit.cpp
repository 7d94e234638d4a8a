// Edits of the text parser's copy, in place.
#include <Ravelo/StrParser.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {

namespace {

using PrintedNumber = std::array<char, 256>;

PrintedNumber printSigned(std::intmax_t value) {
    PrintedNumber text{};
    std::snprintf(text.data(), text.size(), "%jd", value);
    return text;
}

PrintedNumber printUnsigned(std::uintmax_t value) {
    PrintedNumber text{};
    std::snprintf(text.data(), text.size(), "%ju", value);
    return text;
}

PrintedNumber printReal(double value) {
    PrintedNumber text{};
    std::snprintf(text.data(), text.size(), "%f", value);
    return text;
}

/// Copies head, text and tail into a larger buffer, and ends them with a line break.
int growRange(SStrParserRecord& record, int from, int to, const char* text, std::size_t length) {
    const auto head = static_cast<std::size_t>(from);
    const auto tail = static_cast<std::size_t>(record.m_len - to - 1);
    std::size_t whole = head + length + tail;
    char* buffer = makeTextBuffer(whole + 2);
    if (buffer == nullptr) return -1;
    std::memcpy(buffer, record.m_buf, head);
    std::memcpy(buffer + head, text, length);
    std::memcpy(buffer + head + length, record.m_buf + to + 1, tail);
    std::memcpy(buffer + whole, "\r\n", 2);
    if (buffer[whole - 1] != '\n') {
        whole += 2;
    } else {
        std::memset(buffer + whole, 0, 2);
    }
    delete[] record.m_buf;
    record.m_buf = buffer;
    record.m_len = static_cast<int>(whole);
    return static_cast<int>(length);
}

/// Moves the tail down behind the text.
int shrinkRange(SStrParserRecord& record, int from, int to, const char* text, std::size_t length) {
    char* place = record.m_buf + from;
    const int tail = record.m_len - to - 1;
    std::memmove(place, text, length);  // it may be part of the copy
    std::memmove(place + length, record.m_buf + to + 1, static_cast<std::size_t>(tail));
    record.m_len = from + static_cast<int>(length) + tail;
    if (tail > 0) record.m_buf[record.m_len] = '\0';
    return static_cast<int>(length);
}

}  // namespace

int replaceRange(SStrParserRecord& record, int from, int to, const char* text) {
    if (from < 0 || to >= record.m_len || text == nullptr) return -1;
    const std::size_t length = std::strlen(text);
    const auto old_length = static_cast<std::size_t>(to - from + 1);
    if (length > old_length) return growRange(record, from, to, text, length);
    if (length < old_length) return shrinkRange(record, from, to, text, length);
    std::memmove(record.m_buf + from, text, length);
    return static_cast<int>(length);
}

namespace {

/// Replaces the number at the cursor.
int replaceNumber(SStrParserRecord& record, const PrintedNumber& text) {
    const int last = scanNumber(record, record.m_offset, record.m_len - 1);
    return last < 0 ? -1 : replaceRange(record, record.m_offset, last, text.data());
}

}  // namespace

int CStrParser::ReplaceInt64(std::int64_t value) {
    return replaceNumber(SStrParserRecord::of(*this), printSigned(value));
}

int CStrParser::ReplaceInt32(int value) {
    return replaceNumber(SStrParserRecord::of(*this), printSigned(value));
}

int CStrParser::ReplaceInt16(short value) {
    return replaceNumber(SStrParserRecord::of(*this), printSigned(value));
}

int CStrParser::ReplaceUint64(std::uint64_t value) {
    return replaceNumber(SStrParserRecord::of(*this), printUnsigned(value));
}

int CStrParser::ReplaceUint32(unsigned int value) {
    return replaceNumber(SStrParserRecord::of(*this), printUnsigned(value));
}

int CStrParser::ReplaceUint16(unsigned short value) {
    return replaceNumber(SStrParserRecord::of(*this), printUnsigned(value));
}

int CStrParser::ReplaceFloat(float value) {
    return replaceNumber(SStrParserRecord::of(*this), printReal(static_cast<double>(value)));
}

int CStrParser::ReplaceDouble(double value) {
    return replaceNumber(SStrParserRecord::of(*this), printReal(value));
}

int CStrParser::ReplaceLength(int n, const char* text) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const auto length = static_cast<std::size_t>(std::clamp(n, 0, self.rest()));
    if (length == 0) return self.m_offset;
    char* place = self.m_buf + self.m_offset;
    std::size_t given = 0;
    while (text != nullptr && given < length && text[given] != '\0') ++given;
    if (given > 0) std::memmove(place, text, given);  // it may be part of the copy
    std::memset(place + given, ' ', length - given);
    self.m_offset += static_cast<int>(length);
    return self.m_offset;
}

int CStrParser::Append(const char* text) {
    if (text == nullptr || !SStrParserRecord::make(*this)) return -1;
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const auto old_length = static_cast<std::size_t>(self.m_len);
    const std::size_t length = std::strlen(text);
    char* buffer = makeTextBuffer(old_length + length);
    if (buffer == nullptr) {
        self.drop();
        return -1;
    }
    if (old_length > 0) std::memcpy(buffer, self.m_buf, old_length);
    std::memcpy(buffer + old_length, text, length);
    delete[] self.m_buf;
    self.m_buf = buffer;
    self.m_len += static_cast<int>(length);
    return self.m_len;
}

}  // namespace Veltro::Ravelo
