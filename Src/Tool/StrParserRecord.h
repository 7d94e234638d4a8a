// The private state of a CStrParser.
#pragma once

#include <Ravelo/StrParser.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace Veltro::Ravelo {

/// The text and the cursor. Positions are pointers into the copy, which no operation leaves.
struct SStrParserRecord {
    char* m_buf = nullptr;  ///< owned; m_len bytes and at least SPARE_BYTES zeros, or null
    int m_len = 0;
    int m_offset = 0;  ///< 0 to m_len, or m_len + 1 after a number that ended the text
    int m_status = 0;

    /// Bytes behind every text, NULs at the start: room for its terminator and for CR LF.
    static constexpr int SPARE_BYTES = 10;

    /// A parser's record.
    static SStrParserRecord& of(const CStrParser& parser) {
        if (parser.m_internal == nullptr) [[unlikely]]
            return lacking();
        return *parser.m_internal;
    }
    /// Gives a parser the record that it could not get before. @return whether it has one.
    static bool make(CStrParser& parser);
    /// The record of a parser that could not get one: as a text that could not be copied. The thread's own,
    /// and nothing stays in it.
    static SStrParserRecord& lacking();

    /// Where the cursor stands, at most the end.
    const char* cursor() const {
        // A branch: the next operation need not wait for a minimum.
        if (m_offset > m_len) [[unlikely]]
            return end();
        return m_buf + m_offset;
    }
    const char* end() const { return m_buf + m_len; }
    int rest() const { return std::max(m_len - m_offset, 0); }
    int offsetOf(const char* position) const { return static_cast<int>(position - m_buf); }

    /// Moves the cursor on. @return bytes moved over.
    int moveTo(const char* position) {
        const auto moved = static_cast<int>(position - cursor());
        m_offset += moved;
        return moved;
    }
    /// Moves the cursor on to what was found before the end; -1 otherwise.
    int moveToFound(const char* position) { return position != end() ? moveTo(position) : -1; }
    /// Moves the cursor behind what was found, or onto it if it is the last byte. @return bytes up to and
    /// with it.
    int moveThru(const char* position) {
        if (position == end()) return -1;
        const int moved = moveTo(position + 1);
        if (m_offset == m_len) [[unlikely]]
            --m_offset;
        return moved;
    }
    /// Drops the text; the status stays.
    void drop() {
        delete[] m_buf;
        m_buf = nullptr;
        m_len = m_offset = 0;
    }
};

/// Copies at most size - 1 bytes and ends them with a NUL; nothing if dst is null or size 0.
inline void copyText(const char* from, const char* to, char* dst, unsigned int size) {
    if (dst == nullptr || size == 0) return;
    const std::size_t length = std::min(static_cast<std::size_t>(to - from), std::size_t{size} - 1);
    if (length > 0) std::memcpy(dst, from, length);
    dst[length] = '\0';
}

/// Whether a range begins with a text. Not null either of them.
inline bool beginsWith(const char* from, const char* to, const char* text, std::size_t length) {
    return static_cast<std::size_t>(to - from) >= length &&
           (length == 0 || std::memcmp(from, text, length) == 0);
}

/// A buffer for a text: length bytes for the caller to fill, then zeros. Null without memory, or if the
/// length with its spare bytes does not fit an int.
char* makeTextBuffer(std::size_t length);

/// The extent of the number between two offsets, both inclusive.
/// @return the offset of its last byte, or end + 1 if it runs up to the end; -1 without a number. A '.' that
/// a number ends with belongs to it only in the latter case.
int scanNumber(const SStrParserRecord& record, int start, int end);

/// Puts a text in the place of the bytes `from` to `to`, both inclusive. A text that grows ends with a line
/// break afterwards; one that shrinks at its end keeps the old bytes behind its length.
/// @return bytes of the text put in; -1 for null, a range outside the text, or without memory.
int replaceRange(SStrParserRecord& record, int from, int to, const char* text);

}  // namespace Veltro::Ravelo
