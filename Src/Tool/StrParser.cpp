#include <Ravelo/StrParser.h>

#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "Log.h"
#include "Tool/ByteScan.h"
#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {

namespace {

constexpr auto LONGEST_TEXT =
    static_cast<std::size_t>(std::numeric_limits<int>::max() - SStrParserRecord::SPARE_BYTES);

}  // namespace

char* makeTextBuffer(std::size_t length) {
    if (length > LONGEST_TEXT) return nullptr;
    char* buffer = new (std::nothrow) char[length + SStrParserRecord::SPARE_BYTES];
    if (buffer != nullptr) std::memset(buffer + length, 0, SStrParserRecord::SPARE_BYTES);
    return buffer;
}

SStrParserRecord& SStrParserRecord::lacking() {
    static thread_local SStrParserRecord none;
    none.m_offset = 0;
    none.m_status = -1;
    return none;
}

bool SStrParserRecord::make(CStrParser& parser) {
    if (parser.m_internal == nullptr) parser.m_internal = new (std::nothrow) SStrParserRecord;
    return parser.m_internal != nullptr;
}

CStrParser::CStrParser() : m_internal(new (std::nothrow) SStrParserRecord) {}

CStrParser::CStrParser(const char* text) : CStrParser() {
    Attach(text);
}

CStrParser::CStrParser(const char* text, unsigned int len) : CStrParser() {
    Attach(text, len);
}

CStrParser::~CStrParser() {
    if (m_internal != nullptr) m_internal->drop();
    delete m_internal;
}

int CStrParser::Attach(const char* text) {
    RAVELO_ASSERT(text);
    const std::size_t length = std::strlen(text);
    constexpr std::size_t MOST = std::numeric_limits<unsigned int>::max();
    return Attach(text, static_cast<unsigned int>(std::min(length, MOST)));
}

int CStrParser::Attach(const char* text, unsigned int len) {
    RAVELO_ASSERT(text);
    if (!SStrParserRecord::make(*this)) return -1;
    // The old copy goes last: the new text may be part of it.
    char* copy = makeTextBuffer(len);
    if (copy != nullptr) std::memcpy(copy, text, len);
    m_internal->drop();
    m_internal->m_buf = copy;
    m_internal->m_len = copy != nullptr ? static_cast<int>(len) : 0;
    m_internal->m_status = copy != nullptr ? 0 : -1;
    return m_internal->m_status;
}

const char* CStrParser::GetString() const {
    return SStrParserRecord::of(*this).m_buf;
}

int CStrParser::GetStringLen() const {
    return SStrParserRecord::of(*this).m_len;
}

int CStrParser::GetStatus() const {
    return SStrParserRecord::of(*this).m_status;
}

int CStrParser::GetCurOffset() const {
    return SStrParserRecord::of(*this).m_offset;
}

char CStrParser::GetCurChar() const {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    return self.rest() > 0 ? *self.cursor() : '\0';
}

char CStrParser::CheckPrevChar() const {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    return self.m_len > 0 && self.m_offset > 0 ? self.cursor()[-1] : '\0';
}

void CStrParser::ResetAll() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    self.m_offset = 0;
    self.m_status = 0;
}

int CStrParser::LocateOffset(int n) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    self.m_offset = std::max(0, std::min(n, self.m_len - 1));
    return self.m_len > 0 ? self.m_offset : -1;
}

int CStrParser::Compare(const char* s) const {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    if (s == nullptr) return -1;
    const std::size_t length = std::strlen(s);
    if (static_cast<std::size_t>(self.rest()) < length) return -1;
    return length > 0 ? std::strncmp(self.cursor(), s, length) : 0;
}

int CStrParser::CompareCase(const char* s) const {
    const SStrParserRecord& self = SStrParserRecord::of(*this);
    if (s == nullptr || static_cast<std::size_t>(self.rest()) < std::strlen(s)) return -1;
    for (const char* mine = self.cursor(); *s != '\0'; ++s, ++mine) {
        const int difference = ByteScan::lowerCase(*mine) - ByteScan::lowerCase(*s);
        if (difference != 0) return difference;
    }
    return 0;
}

int CStrParser::Expect(char c) {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    if (self.rest() == 0 || *self.cursor() != c) return -1;
    return ++self.m_offset;
}

int CStrParser::ExpectEOL() {
    SStrParserRecord& self = SStrParserRecord::of(*this);
    const int rest = self.rest();
    if (rest == 0) return -1;
    const char* position = self.cursor();
    if (*position == '\n') return self.m_offset += 1;
    if (*position == '\r' && rest > 1 && position[1] == '\n') return self.m_offset += 2;
    return -1;
}

}  // namespace Veltro::Ravelo
