// Searches of the text parser: forward, byte by byte.
#include <Ravelo/StrParser.h>

#include <cstring>

#include "Tool/ByteScan.h"
#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {

namespace ByteScan {

const char* findText(const char* from, const char* to, const char* text, std::size_t length) {
    if (length == 0 || static_cast<std::size_t>(to - from) < length) return nullptr;
    const char* last = to - length + 1;  // behind the last place where it could begin
    for (;; ++from) {
        from = findByte(from, last, text[0]);
        if (from == last) return nullptr;
        if (std::memcmp(from, text, length) == 0) return from;
    }
}

const char* findTextAnyCase(const char* from, const char* to, const char* text, std::size_t length) {
    if (length == 0 || static_cast<std::size_t>(to - from) < length) return nullptr;
    for (const char* last = to - length + 1; from != last; ++from) {
        std::size_t same = 0;
        while (same < length && lowerCase(from[same]) == lowerCase(text[same])) ++same;
        if (same == length) return from;
    }
    return nullptr;
}

}  // namespace ByteScan

namespace {

using Finder = const char*(const char*, const char*, const char*, std::size_t);

unsigned char* findBytes(unsigned char* hay, int hay_len, const unsigned char* needle, int needle_len,
                         Finder* find) {
    if (hay == nullptr || needle == nullptr || hay_len < 1 || needle_len < 1) return nullptr;
    const char* from = reinterpret_cast<const char*>(hay);
    const char* found = find(from, from + hay_len, reinterpret_cast<const char*>(needle),
                             static_cast<std::size_t>(needle_len));
    return found != nullptr ? hay + (found - from) : nullptr;
}

/// Moves the cursor to a text within a range of offsets.
int locate(SStrParserRecord& record, const char* s, int from, int to, Finder* find) {
    if (s == nullptr || from < 0 || from >= to || to > record.m_len) return -1;
    const char* found = find(record.m_buf + from, record.m_buf + to, s, std::strlen(s));
    if (found == nullptr) return -1;
    record.m_offset = record.offsetOf(found);
    return record.m_offset;
}

/// The offset behind the LF that ends the cursor's line, or the text's length.
int behindLine(const SStrParserRecord& record) {
    const char* found = ByteScan::findByte(record.cursor(), record.end(), '\n');
    return record.offsetOf(found) + (found != record.end() ? 1 : 0);
}

}  // namespace

int CStrParser::LocateString(const char* s, int from, int to) {
    return locate(SStrParserRecord::of(*this), s, from, to, ByteScan::findText);
}

int CStrParser::LocateStringCase(const char* s, int from, int to) {
    return locate(SStrParserRecord::of(*this), s, from, to, ByteScan::findTextAnyCase);
}

int CStrParser::LocateString(const char* s) {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    return LocateString(s, self.m_offset, self.m_len);
}

int CStrParser::LocateStringCase(const char* s) {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    return LocateStringCase(s, self.m_offset, self.m_len);
}

int CStrParser::LocateStringInLine(const char* s) {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    return LocateString(s, self.m_offset, behindLine(self));
}

int CStrParser::LocateStringInLineCase(const char* s) {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    return LocateStringCase(s, self.m_offset, behindLine(self));
}

unsigned char* CStrParser::MemMem(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len) {
    return findBytes(hay, hay_len, needle, needle_len, ByteScan::findText);
}

unsigned char* CStrParser::MemMemCase(unsigned char* hay, int hay_len, unsigned char* needle,
                                      int needle_len) {
    return findBytes(hay, hay_len, needle, needle_len, ByteScan::findTextAnyCase);
}

}  // namespace Veltro::Ravelo
