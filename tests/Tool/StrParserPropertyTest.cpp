// Every reading operation against the reference, on random texts.
#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "StrParserReference.h"
#include "Support/Load.h"
#include "Tool/StrParserRecord.h"

namespace Veltro::Ravelo {
namespace {

constexpr std::size_t TEXTS = 1'000'000;
constexpr unsigned LARGEST_COPY = 24;
constexpr char UNTOUCHED = '\x7e';

/// What one operation is called with; drawn anew for every text.
struct SArguments {
    char c = 0;
    unsigned n = 0;
    unsigned size = 0;
    std::string delims;
    std::string needle;
    const unsigned char* table = nullptr;
};

/// What an operation gave, besides cursor and status.
struct SOutcome {
    std::int64_t result = 0;
    double real = 0;
    std::array<char, LARGEST_COPY> copy{};

    bool operator==(const SOutcome&) const = default;
};

/// A buffer to copy into, whose bytes tell which of them were written.
SOutcome freshOutcome() {
    SOutcome outcome;
    outcome.copy.fill(UNTOUCHED);
    return outcome;
}

/// What a copying operation leaves in a buffer.
void copyPiece(const std::string& piece, unsigned size, SOutcome* outcome) {
    if (size == 0) return;
    const std::size_t length = std::min<std::size_t>(piece.size(), size - 1);
    std::memcpy(outcome->copy.data(), piece.data(), length);
    outcome->copy[length] = '\0';
}

struct SOperation {
    const char* name;
    void (*run)(CStrParser&, const SArguments&, SOutcome*);
    void (*expect)(CStrParserReference&, const SArguments&, SOutcome*);
};

// One line for an operation that both sides call with the same arguments and that gives a number.
#define SAME(name, ...)                                                              \
    {                                                                                \
#name "(" #__VA_ARGS__ ")",                                                        \
            [](CStrParser& parser, [[maybe_unused]] const SArguments& with, SOutcome* out) { \
                out->result = static_cast<std::int64_t>(parser.name(__VA_ARGS__));         \
            },                                                                             \
            [](CStrParserReference& text, [[maybe_unused]] const SArguments& with, SOutcome* out) { \
                out->result = static_cast<std::int64_t>(text.name(__VA_ARGS__));           \
            } \
    }
// The same for one that takes a text, which the reference takes as a std::string.
#define SAME_TEXT(name, value)                                                        \
    {                                                                                 \
#name "(" #value ")",                                                               \
            [](CStrParser& parser, const SArguments& with, SOutcome* out) {                 \
                out->result = parser.name((value).c_str());                                 \
            },                                                                              \
            [](CStrParserReference& text, const SArguments& with, SOutcome* out) {          \
                out->result = text.name(value);                                             \
            } \
    }

const SOperation OPERATIONS[] = {
    SAME(GetCurChar),
    SAME(CheckPrevChar),
    SAME(GetLineNum),
    SAME(LocateOffset, static_cast<int>(with.n) - 4),
    SAME(ResetToLineHead),
    SAME(Expect, with.c),
    SAME(ExpectEOL),
    {"Compare",
     [](CStrParser& parser, const SArguments& with, SOutcome* out) {
         out->result = parser.Compare(with.needle.c_str()) == 0;
     },
     [](CStrParserReference& text, const SArguments& with, SOutcome* out) {
         out->result = text.Compare(with.needle);
     }},
    {"CompareCase",
     [](CStrParser& parser, const SArguments& with, SOutcome* out) {
         out->result = parser.CompareCase(with.needle.c_str()) == 0;
     },
     [](CStrParserReference& text, const SArguments& with, SOutcome* out) {
         out->result = text.CompareCase(with.needle);
     }},
    SAME(ConsumeInt64),
    SAME(ConsumeUint64),
    SAME(ConsumeHexUint32),
    {"ConsumeDouble",
     [](CStrParser& parser, const SArguments&, SOutcome* out) { out->real = parser.ConsumeDouble(); },
     [](CStrParserReference& text, const SArguments&, SOutcome* out) { out->real = text.ConsumeDouble(); }},
    {"ConsumeInt16",
     [](CStrParser& parser, const SArguments&, SOutcome* out) { out->result = parser.ConsumeInt16(); },
     [](CStrParserReference& text, const SArguments&, SOutcome* out) {
         out->result = static_cast<std::int16_t>(text.ConsumeInt64());
     }},
    {"ConsumeUint16",
     [](CStrParser& parser, const SArguments&, SOutcome* out) { out->result = parser.ConsumeUint16(); },
     [](CStrParserReference& text, const SArguments&, SOutcome* out) {
         out->result = static_cast<std::uint16_t>(text.ConsumeUint64());
     }},
    {"ConsumeFloat",
     [](CStrParser& parser, const SArguments&, SOutcome* out) { out->real = parser.ConsumeFloat(); },
     [](CStrParserReference& text, const SArguments&, SOutcome* out) {
         out->real = static_cast<float>(text.ConsumeDouble());
     }},
    {"ConsumeWord",
     [](CStrParser& parser, const SArguments& with, SOutcome* out) {
         out->result = parser.ConsumeWord(out->copy.data(), with.size);
     },
     [](CStrParserReference& text, const SArguments& with, SOutcome* out) {
         std::string piece;
         out->result = text.ConsumeWord(&piece);
         copyPiece(piece, with.size, out);
     }},
    SAME(ConsumeWhitespace),
    SAME(ConsumeWhitespaceInLine),
    {"ConsumeLength",
     [](CStrParser& parser, const SArguments& with, SOutcome* out) {
         out->result = parser.ConsumeLength(with.n, out->copy.data(), with.size);
     },
     [](CStrParserReference& text, const SArguments& with, SOutcome* out) {
         std::string piece;
         out->result = text.ConsumeLength(with.n, &piece);
         copyPiece(piece, with.size, out);
     }},
    {"ConsumeSentence",
     [](CStrParser& parser, const SArguments& with, SOutcome* out) {
         out->result = parser.ConsumeSentence(with.delims.c_str(), out->copy.data(), with.size);
     },
     [](CStrParserReference& text, const SArguments& with, SOutcome* out) {
         std::string piece;
         out->result = text.ConsumeSentence(with.delims, &piece);
         if (!piece.empty()) copyPiece(piece, with.size, out);
     }},
    SAME(ConsumeUntilDigit),
    SAME(ConsumeUntilHexDigit),
    SAME(ConsumeUntil, with.c),
    SAME(ConsumeUntil, with.table),
    SAME(ConsumeUntilinLine, with.c),
    SAME(ConsumeUntilinLine, with.table),
    SAME(GetThru, with.c),
    {"GetThruEOL",
     [](CStrParser& parser, const SArguments&, SOutcome* out) { out->result = parser.GetThruEOL(); },
     [](CStrParserReference& text, const SArguments&, SOutcome* out) { out->result = text.GetThru('\n'); }},
    SAME(ConsumeUntilNextLine),
    {"ConsumeIpAddr",
     [](CStrParser& parser, const SArguments& with, SOutcome* out) {
         // Without a family nothing is looked up.
         out->result = parser.ConsumeIpAddr(out->copy.data(), with.size, nullptr);
     },
     [](CStrParserReference& text, const SArguments& with, SOutcome* out) {
         std::string address;
         const bool fails_at_once = with.size < 7 || text.offset >= text.length();
         out->result = text.ConsumeIpAddr(&address, with.size);
         if (fails_at_once) return;
         std::memset(out->copy.data(), 0, with.size);
         std::memcpy(out->copy.data(), address.data(), address.size());
     }},
    SAME(GetCurLinelength),
    SAME_TEXT(GetLineNumWithHead, with.needle),
    {"GetLineWithHead",
     [](CStrParser& parser, const SArguments& with, SOutcome* out) {
         out->result = parser.GetLineWithHead(with.needle.c_str(), out->copy.data(), with.size);
     },
     [](CStrParserReference& text, const SArguments& with, SOutcome* out) {
         std::string line;
         out->result = text.GetLineWithHead(with.needle, &line);
         if (out->result < 0) return;
         if (with.size == 0) out->result = 0;
         copyPiece(line, with.size, out);
     }},
    SAME_TEXT(LocateString, with.needle),
    SAME_TEXT(LocateStringCase, with.needle),
    SAME_TEXT(LocateStringInLine, with.needle),
    SAME_TEXT(LocateStringInLineCase, with.needle),
};

/// Draws texts and arguments that have something to do with each other.
class CDrawing {
public:
    std::string text() {
        static constexpr std::string_view ALPHABETS[] = {
            std::string_view("ab1-.\r\n\0[]: \tZ%f", 17), std::string_view("0123456789.-"),
            std::string_view("12.:[]af%\n"), std::string_view("aA\r\n"),
            std::string_view("\0\n\x7f\x80\xff ~!", 8)};
        const std::string_view alphabet = ALPHABETS[below(5)];
        std::string text(below(4) == 0 ? 16 + below(33) : below(16), ' ');
        for (char& c : text) c = alphabet[below(static_cast<unsigned>(alphabet.size()))];
        return text;
    }
    SArguments arguments(const std::string& text) {
        static const auto TABLES = makeTables();
        SArguments with;
        with.c = text.empty() || below(4) == 0 ? static_cast<char>(below(256)) : text[below(length(text))];
        with.n = below(below(8) == 0 ? 0xFFFFFFFF : 20);
        with.size = below(LARGEST_COPY + 1);
        for (unsigned count = below(4); count > 0; --count) with.delims += "b\n\r1:\xff"[below(6)];
        with.needle = needle(text);
        with.table = below(16) == 0 ? nullptr : TABLES[below(4)].data();
        return with;
    }
    /// A cursor anywhere, one beyond the length too, where a number that ended the text leaves it.
    int offset(const std::string& text) { return static_cast<int>(below(length(text) + 2)); }

private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }
    static unsigned length(const std::string& text) { return static_cast<unsigned>(text.size()); }
    /// A piece of the text, so that it is found, or of a wrong case, or of another text; never with a NUL.
    std::string needle(const std::string& text) {
        std::string piece = text.substr(text.empty() ? 0 : below(length(text)), below(4));
        if (below(4) == 0) piece += "aZ\n"[below(3)];
        if (below(2) == 0) {
            for (char& c : piece) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
        }
        return piece.substr(0, piece.find('\0'));
    }
    static std::array<std::array<unsigned char, 256>, 4> makeTables() {
        std::array<std::array<unsigned char, 256>, 4> tables{};
        tables[0]['a'] = tables[0][0] = 1;
        tables[1]['\n'] = 255;
        for (unsigned c = 128; c < 256; ++c) tables[2][c] = 1;
        return tables;
    }

    std::mt19937_64 m_random{20241101};
};

/// Describes what differed.
std::string describe(const CStrParserReference& start, const SOperation& operation, const SArguments& with) {
    std::string shown;
    for (const char c : start.text) {
        char code[8];
        std::snprintf(code, sizeof(code), c > ' ' && c < 127 ? "%c" : "\\x%02x",
                      static_cast<unsigned char>(c));
        shown += code;
    }
    return std::string(operation.name) + " on '" + shown + "' at " + std::to_string(start.offset) +
           " with c " + std::to_string(with.c) + ", n " + std::to_string(with.n) + ", size " +
           std::to_string(with.size) + ", delims '" + with.delims + "', needle '" + with.needle + "'";
}

/// Runs one operation on both sides from the same cursor. @return whether all is the same.
bool agree(CStrParser& parser, CStrParserReference& reference, const SOperation& operation,
           const SArguments& with) {
    const int start = reference.offset;
    SStrParserRecord::of(parser).m_offset = start;
    SStrParserRecord::of(parser).m_status = 0;
    reference.status = 0;
    SOutcome ours = freshOutcome();
    SOutcome expected = freshOutcome();
    operation.run(parser, with, &ours);
    operation.expect(reference, with, &expected);
    const bool same = ours == expected && parser.GetCurOffset() == reference.offset &&
                      parser.GetStatus() == reference.status;
    if (!same) {
        ADD_FAILURE() << "result " << ours.result << ", cursor " << parser.GetCurOffset() << ", status "
                      << parser.GetStatus() << "; expected " << expected.result << ", " << reference.offset
                      << ", " << reference.status;
    }
    reference.offset = start;
    return same;
}

TEST(StrParserProperty, EveryReadingOperationDoesWhatTheReferenceDoes) {
    CDrawing drawing;
    CStrParser parser;
    for (std::size_t i = TestSupport::scaledDown(TEXTS); i > 0; --i) {
        const std::string text = drawing.text();
        const SArguments with = drawing.arguments(text);
        CStrParserReference reference(text, drawing.offset(text));
        ASSERT_EQ(0, parser.Attach(text.data(), static_cast<unsigned>(text.size())));
        for (const SOperation& operation : OPERATIONS) {
            ASSERT_TRUE(agree(parser, reference, operation, with)) << describe(reference, operation, with);
        }
        ASSERT_EQ(0, std::memcmp(parser.GetString(), text.c_str(), text.size() + 1))
            << "the text has changed";
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
