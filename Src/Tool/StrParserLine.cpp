// What the text parser knows of lines.
#include <Ravelo/StrParser.h>

#include <cstring>

#include "Tool/ByteScan.h"
#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {

namespace {

/// The first byte of the cursor's line.
const char* lineHead(const SStrParserRecord& record) {
    const char* position = record.cursor();
    while (position != record.m_buf && position[-1] != '\n') --position;
    // Nothing follows the text's last LF: it is its own line's head then.
    return position == record.end() && position != record.m_buf && position[-1] == '\n' ? position - 1
                                                                                        : position;
}

/// Where a line ends, without LF or CR LF; found is its LF or the text's end.
const char* lineEnd(const SStrParserRecord& record, const char* head, const char* found) {
    return found != record.end() && found > head && found[-1] == '\r' ? found - 1 : found;
}

/// The head of the line behind the next LF; the text's end without one.
const char* nextHead(const SStrParserRecord& record, const char* position) {
    const char* found = ByteScan::findByte(position, record.end(), '\n');
    return found != record.end() ? found + 1 : found;
}

/// The head of the first line that counts as "from the cursor on".
const char* firstHead(const SStrParserRecord& record) {
    if (record.rest() == 0) return record.end();
    if (record.m_offset == 0) return record.m_buf;
    // The LF before the cursor makes the cursor a head; at 1 it is not looked at.
    return nextHead(record, record.m_offset > 1 ? record.cursor() - 1 : record.cursor());
}

/// The first line at or behind a line's head that begins with a text; the text's end without one.
const char* findHead(const SStrParserRecord& record, const char* head, const char* text, std::size_t length) {
    while (head != record.end() && !beginsWith(head, record.end(), text, length))
        head = nextHead(record, head);
    return head;
}

}  // namespace

int CStrParser::GetLineNum() const {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    int lines = 0;
    for (const char* position = self.m_buf;; ++position, ++lines) {
        position = ByteScan::findByte(position, self.end(), '\n');
        if (position == self.end()) return lines;
    }
}

int CStrParser::ResetToLineHead() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    self.m_offset = self.offsetOf(lineHead(self));
    return self.m_offset;
}

int CStrParser::GetCurLinelength() const {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    const char* head = lineHead(self);
    return static_cast<int>(lineEnd(self, head, ByteScan::findByte(head, self.end(), '\n')) - head);
}

int CStrParser::GetLineNumWithHead(const char* head) const {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    if (head == nullptr) return -1;
    const std::size_t length = std::strlen(head);
    int lines = 0;
    const char* line = findHead(self, firstHead(self), head, length);
    for (; line != self.end(); ++lines) line = findHead(self, nextHead(self, line), head, length);
    return lines;
}

int CStrParser::GetLineWithHead(const char* head, char* dst, unsigned int size) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    if (head == nullptr) return -1;
    const char* line = findHead(self, firstHead(self), head, std::strlen(head));
    if (line == self.end()) return -1;
    const char* found = ByteScan::findByte(line, self.end(), '\n');
    const char* stop = lineEnd(self, line, found);
    self.m_offset = std::min(self.offsetOf(found) + 1, self.m_len - 1);
    if (dst == nullptr || size == 0) return 0;
    copyText(line, stop, dst, size);
    return static_cast<int>(stop - line);
}

}  // namespace Veltro::Ravelo
