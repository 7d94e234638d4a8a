// Numbers of the text parser: the one scanner that says how far a number goes, and those who read by it.
#include <Ravelo/StrParser.h>

#include <charconv>
#include <limits>

#include "Tool/ByteScan.h"
#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {

namespace {

/// The bytes of the number at the cursor and where the cursor goes behind it.
struct SNumber {
    const char* first;
    const char* last;  ///< behind the number, at most the text's end
    int next_offset;   ///< one more than that after a number that ended the text
};

/// Finds the number at the cursor.
bool findNumber(const SStrParserRecord& record, SNumber* number) {
    const int last = scanNumber(record, record.m_offset, record.m_len - 1);
    if (last < 0) return false;
    *number = {record.cursor(), record.m_buf + std::min(last + 1, record.m_len), last + 1};
    return true;
}

struct SInteger {
    bool negative;
    bool too_large;
    std::uint64_t magnitude;  ///< the largest there is if too large
};

SInteger readInteger(const SNumber& number) {
    const char* digit = number.first;
    SInteger integer{*digit == '-', false, 0};
    if (integer.negative) ++digit;
    for (; digit != number.last && *digit != '.'; ++digit) {
        const std::uint64_t value = ByteScan::digitValue(*digit);
        constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
        integer.too_large = integer.too_large || integer.magnitude > (MOST - value) / 10;
        integer.magnitude = integer.too_large ? MOST : integer.magnitude * 10 + value;
    }
    return integer;
}

std::int64_t toSigned(const SInteger& integer) {
    constexpr std::uint64_t MOST = std::numeric_limits<std::int64_t>::max();
    if (!integer.negative) return static_cast<std::int64_t>(std::min(integer.magnitude, MOST));
    if (integer.magnitude > MOST) return std::numeric_limits<std::int64_t>::min();
    return -static_cast<std::int64_t>(integer.magnitude);
}

std::uint64_t toUnsigned(const SInteger& integer) {
    return integer.negative && !integer.too_large ? 0 - integer.magnitude : integer.magnitude;
}

/// Reads a number with its fraction. @return false if it is too large.
bool readDouble(const SNumber& number, double* value) {
    const std::errc error = std::from_chars(number.first, number.last, *value).ec;
    if (error == std::errc()) return true;
    // Out of range: too small if its whole part is zero.
    const char* digit = number.first + (*number.first == '-' ? 1 : 0);
    while (digit != number.last && *digit == '0') ++digit;
    *value = *number.first == '-' ? -0.0 : 0.0;
    return *digit == '.';
}

}  // namespace

int scanNumber(const SStrParserRecord& record, int start, int end) {
    if (start < 0 || start > end || end >= record.m_len) return -1;
    const char* text = record.m_buf;
    int position = start;
    if (text[position] == '-') ++position;
    const int first_digit = position;
    while (position <= end && ByteScan::isA(text[position], ByteScan::DIGIT)) ++position;
    if (position == first_digit) return -1;
    if (position <= end && text[position] == '.') {
        ++position;
        while (position <= end && ByteScan::isA(text[position], ByteScan::DIGIT)) ++position;
    }
    if (position > end) return end + 1;
    return text[position - 1] == '.' ? position - 2 : position - 1;
}

std::int64_t CStrParser::ConsumeInt64() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    SNumber number{};
    self.m_status = -1;
    if (!findNumber(self, &number)) return -1;
    self.m_status = 0;
    self.m_offset = number.next_offset;
    return toSigned(readInteger(number));
}

std::uint64_t CStrParser::ConsumeUint64() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    SNumber number{};
    self.m_status = -1;
    if (!findNumber(self, &number)) return 0;
    self.m_status = 0;
    self.m_offset = number.next_offset;
    return toUnsigned(readInteger(number));
}

short CStrParser::ConsumeInt16() {
    return static_cast<short>(ConsumeInt64());
}

unsigned short CStrParser::ConsumeUint16() {
    return static_cast<unsigned short>(ConsumeUint64());
}

double CStrParser::ConsumeDouble() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    SNumber number{};
    double value = 0;
    self.m_status = -1;
    if (!findNumber(self, &number) || !readDouble(number, &value)) return -1.0;
    self.m_status = 0;
    self.m_offset = number.next_offset;
    return value;
}

float CStrParser::ConsumeFloat() {
    return static_cast<float>(ConsumeDouble());
}

unsigned int CStrParser::ConsumeHexUint32() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    self.m_status = -1;
    if (self.rest() == 0) return 0;
    unsigned int value = 0;
    const char* digit = self.cursor();
    for (; digit != self.end() && ByteScan::isA(*digit, ByteScan::HEX_DIGIT); ++digit) {
        value = value * 16 + ByteScan::digitValue(*digit);
    }
    self.moveTo(digit);
    self.m_status = 0;
    return value;
}

}  // namespace Veltro::Ravelo
