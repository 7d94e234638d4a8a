// The movements of the text parser.
#include <Ravelo/StrParser.h>

#include <array>
#include <cstring>

#include "Tool/ByteScan.h"
#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {

namespace {

/// The first byte that is one of a NUL-terminated set.
const char* findAnyOf(const char* from, const char* to, const char* set) {
    if (set == nullptr || set[0] == '\0') return to;
    if (set[1] == '\0') return ByteScan::findByte(from, to, set[0]);
    if (set[2] == '\0') return ByteScan::findEither(from, to, set[0], set[1]);
    std::array<unsigned char, 256> table{};
    for (; *set != '\0'; ++set) table[static_cast<unsigned char>(*set)] = 1;
    return ByteScan::findInTable(from, to, table.data());
}

/// Moves over bytes of a class: mostly none or one, so they are counted, and what is read next waits for no
/// pointer.
int skipOver(SStrParserRecord& record, unsigned char skipped) {
    const char* position = record.cursor();
    const int rest = record.rest();
    int count = 0;
    while (count < rest && ByteScan::isA(position[count], skipped)) ++count;
    record.m_offset += count;
    return count;
}

}  // namespace

int CStrParser::ConsumeWord(char* dst, unsigned int size) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const char* start = self.cursor();
    const char* stop = ByteScan::skipPrintable(start, self.end());
    copyText(start, stop, dst, size);
    return self.moveTo(stop);
}

int CStrParser::ConsumeWhitespace() {
    return skipOver(SStrParserRecord::of(*this), ByteScan::SPACE);
}

int CStrParser::ConsumeWhitespaceInLine() {
    return skipOver(SStrParserRecord::of(*this), ByteScan::LINE_SPACE);
}

int CStrParser::ConsumeLength(unsigned int n, char* dst, unsigned int size) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const char* start = self.cursor();
    const auto rest = static_cast<unsigned>(self.rest());
    if (n > rest) [[unlikely]]
        n = rest;
    copyText(start, start + n, dst, size);
    self.m_offset += static_cast<int>(n);
    return static_cast<int>(n);
}

int CStrParser::ConsumeSentence(const char* delims, char* dst, unsigned int size) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const char* start = self.cursor();
    const char* stop = findAnyOf(start, self.end(), delims);
    if (stop != start) copyText(start, stop, dst, size);
    return self.moveTo(stop != self.end() ? stop + 1 : stop);
}

int CStrParser::ConsumeUntilDigit() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    return self.moveToFound(ByteScan::findClass(self.cursor(), self.end(), ByteScan::DIGIT));
}

int CStrParser::ConsumeUntilHexDigit() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    return self.moveToFound(ByteScan::findClass(self.cursor(), self.end(), ByteScan::HEX_DIGIT));
}

int CStrParser::ConsumeUntil(char c) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    return self.moveToFound(ByteScan::findByte(self.cursor(), self.end(), c));
}

int CStrParser::ConsumeUntil(const unsigned char* table) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    if (table == nullptr) return -1;
    return self.moveToFound(ByteScan::findInTable(self.cursor(), self.end(), table));
}

int CStrParser::ConsumeUntilinLine(char c) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const char* found = ByteScan::findEither(self.cursor(), self.end(), c, '\n');
    return found != self.end() && *found == c ? self.moveTo(found) : -1;
}

int CStrParser::ConsumeUntilinLine(const unsigned char* table) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    if (table == nullptr) return -1;
    const char* position = self.cursor();
    const char* end = self.end();
    while (position != end && *position != '\n' && table[static_cast<unsigned char>(*position)] == 0)
        ++position;
    return self.moveToFound(position);
}

int CStrParser::GetThru(char c) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    return self.moveThru(ByteScan::findByte(self.cursor(), self.end(), c));
}

int CStrParser::GetThruEOL() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    return self.moveThru(ByteScan::findByte(self.cursor(), self.end(), '\n'));
}

int CStrParser::ConsumeUntilNextLine() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const char* line_end = ByteScan::findByte(self.cursor(), self.end(), '\n');
    const int moved = self.moveThru(line_end);
    return moved > 0 && line_end + 1 == self.end() ? self.m_offset : moved;
}

}  // namespace Veltro::Ravelo
