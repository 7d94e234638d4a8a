// Finding bytes in a range: what the text parser scans with. Every function looks at each byte at most once,
// never beyond the range, and returns the range's end when there is nothing to find.
#pragma once

#include <emmintrin.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace Veltro::Ravelo::ByteScan {

/// What a byte may be, in one table for all questions; independent of the locale.
enum : unsigned char {
    SPACE = 0x01,        ///< blank, HT, LF, VT, FF, CR
    LINE_SPACE = 0x02,   ///< SPACE but CR and LF
    DIGIT = 0x04,        ///< 0-9
    HEX_DIGIT = 0x08,    ///< 0-9, A-F, a-f
    IPV4_BYTE = 0x10,    ///< digits and '.'
    ADDRESS_BYTE = 0x20  ///< hexadecimal digits, ':', '.' and '%'
};

consteval std::array<unsigned char, 256> makeClasses() {
    std::array<unsigned char, 256> classes{};
    for (const char c : {' ', '\t', '\v', '\f'}) classes[static_cast<unsigned char>(c)] = SPACE | LINE_SPACE;
    for (const char c : {'\r', '\n'}) classes[static_cast<unsigned char>(c)] = SPACE;
    for (unsigned c = '0'; c <= '9'; ++c) classes[c] = DIGIT | HEX_DIGIT | IPV4_BYTE | ADDRESS_BYTE;
    for (unsigned i = 0; i < 6; ++i) classes['A' + i] = classes['a' + i] = HEX_DIGIT | ADDRESS_BYTE;
    classes['.'] = IPV4_BYTE | ADDRESS_BYTE;
    classes[':'] = classes['%'] = ADDRESS_BYTE;
    return classes;
}
inline constexpr std::array<unsigned char, 256> CLASSES = makeClasses();

inline bool isA(char c, unsigned char wanted) {
    return (CLASSES[static_cast<unsigned char>(c)] & wanted) != 0;
}

/// Decimal or hexadecimal; the byte must be such a digit.
inline unsigned digitValue(char c) {
    return c <= '9' ? static_cast<unsigned>(c - '0') : static_cast<unsigned>((c | 0x20) - 'a' + 10);
}

inline unsigned char lowerCase(char c) {
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
}

/// The first byte of a class.
inline const char* findClass(const char* from, const char* to, unsigned char wanted) {
    while (from != to && !isA(*from, wanted)) ++from;
    return from;
}

/// The first byte not of a class.
inline const char* skipClass(const char* from, const char* to, unsigned char skipped) {
    while (from != to && isA(*from, skipped)) ++from;
    return from;
}

inline const char* findByte(const char* from, const char* to, char c) {
    if (from == to) return to;
    const void* found = std::memchr(from, c, static_cast<std::size_t>(to - from));
    return found != nullptr ? static_cast<const char*>(found) : to;
}

/// Which of the sixteen bytes of a block were marked, the first one in the lowest bit.
inline unsigned markedBytes(__m128i marks) {
    return static_cast<unsigned>(_mm_movemask_epi8(marks));
}

/// The first of two bytes: unlike two searches it stops at the nearer one.
inline const char* findEither(const char* from, const char* to, char one, char other) {
    const __m128i ones = _mm_set1_epi8(one);
    const __m128i others = _mm_set1_epi8(other);
    const auto find = [ones, others](const char* block_at) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block_at));
        return markedBytes(_mm_or_si128(_mm_cmpeq_epi8(block, ones), _mm_cmpeq_epi8(block, others)));
    };
    // Two blocks at a time: most words and many lines end within them, and a branch that goes the same way
    // each time costs nothing.
    for (; to - from >= 32; from += 32) {
        const unsigned found = find(from) | find(from + 16) << 16;
        if (found != 0) return from + std::countr_zero(found);
    }
    while (from != to && *from != one && *from != other) ++from;
    return from;
}

/// The first byte that is not from 33 to 126.
inline const char* skipPrintable(const char* from, const char* to) {
    const __m128i lowest = _mm_set1_epi8(33);
    const __m128i highest = _mm_set1_epi8(126);
    for (; to - from >= 16; from += 16) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
        // Bytes from 128 on are negative here, hence below the lowest.
        const unsigned found =
            markedBytes(_mm_or_si128(_mm_cmplt_epi8(block, lowest), _mm_cmpgt_epi8(block, highest)));
        if (found != 0) return from + std::countr_zero(found);
    }
    while (from != to && *from > ' ' && *from < '\x7f') ++from;
    return from;
}

/// The first byte whose entry in a table of 256 is not 0.
inline const char* findInTable(const char* from, const char* to, const unsigned char* table) {
    while (from != to && table[static_cast<unsigned char>(*from)] == 0) ++from;
    return from;
}

/// The first place where a text stands, or null.
const char* findText(const char* from, const char* to, const char* text, std::size_t length);
/// The same, letters of either case alike.
const char* findTextAnyCase(const char* from, const char* to, const char* text, std::size_t length);

}  // namespace Veltro::Ravelo::ByteScan
