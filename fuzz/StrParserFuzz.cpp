// Drives a text parser through operations in any order. The input is the text's length (two bytes, the lower
// one first), the text, and then operations: a byte that says which, and the bytes of its arguments.
#include <Ravelo/StrParser.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "FuzzBytes.h"

namespace {

using Veltro::Fuzz::CFuzzBytes;
using Veltro::Fuzz::require;
using Veltro::Ravelo::CStrParser;

/// A text this long grows no more: one that is replaced by itself over and over would take all memory.
constexpr int LONGEST_TEXT = 1024;

/// A destination of exactly the drawn size, so that a byte too many is found; sometimes null.
class CDestination {
public:
    explicit CDestination(CFuzzBytes& input) : m_size(input.byte() % 160U), m_bytes(new char[m_size]) {
        m_is_null = input.byte() % 8 == 0;
    }
    char* data() { return m_is_null ? nullptr : m_bytes.get(); }
    unsigned size() const { return m_size; }

private:
    unsigned m_size;
    std::unique_ptr<char[]> m_bytes;
    bool m_is_null;
};

/// A table of 256 entries that marks up to 15 bytes.
std::array<unsigned char, 256> drawTable(CFuzzBytes& input) {
    std::array<unsigned char, 256> table{};
    for (const char c : input.bytes(input.byte() % 16U)) table[static_cast<unsigned char>(c)] = 1;
    return table;
}

template <int (CStrParser::*Operation)()>
void plain(CStrParser& parser, CFuzzBytes&) {
    const int before = parser.GetCurOffset();
    if ((parser.*Operation)() < 0) require(parser.GetCurOffset() == before);
}

template <int (CStrParser::*Operation)(char)>
void withByte(CStrParser& parser, CFuzzBytes& input) {
    const int before = parser.GetCurOffset();
    if ((parser.*Operation)(static_cast<char>(input.byte())) < 0) require(parser.GetCurOffset() == before);
}

template <int (CStrParser::*Operation)(const char*)>
void withText(CStrParser& parser, CFuzzBytes& input) {
    const int before = parser.GetCurOffset();
    if ((parser.*Operation)(input.shortText().c_str()) < 0) require(parser.GetCurOffset() == before);
}

template <int (CStrParser::*Operation)(const unsigned char*)>
void withTable(CStrParser& parser, CFuzzBytes& input) {
    (parser.*Operation)(drawTable(input).data());
}

template <int (CStrParser::*Operation)(const char*) const>
void comparing(CStrParser& parser, CFuzzBytes& input) {
    (parser.*Operation)(input.shortText().c_str());
}

template <auto Operation>
void consumingNumber(CStrParser& parser, CFuzzBytes&) {
    const int before = parser.GetCurOffset();
    (parser.*Operation)();
    if (parser.GetStatus() != 0) require(parser.GetCurOffset() == before);
}

template <typename Value, int (CStrParser::*Operation)(Value)>
void replacingNumber(CStrParser& parser, CFuzzBytes& input) {
    Value value{};
    const std::string bytes = input.bytes(sizeof(value));
    std::memcpy(&value, bytes.data(), bytes.size());
    const int before = parser.GetCurOffset();
    (parser.*Operation)(value);
    require(parser.GetCurOffset() == before);
}

/// A piece of the parser's own text, where an operation takes a text.
const char* ownText(const CStrParser& parser, CFuzzBytes& input) {
    if (parser.GetString() == nullptr) return "";
    return parser.GetString() + input.word() % (static_cast<unsigned>(parser.GetStringLen()) + 1);
}

/// A text from the input, or the parser's own.
template <typename Use>
void useText(CStrParser& parser, CFuzzBytes& input, Use use) {
    if (input.byte() % 4 == 0) {
        use(ownText(parser, input));
    } else {
        use(input.shortText().c_str());
    }
}

using Operation = void (*)(CStrParser&, CFuzzBytes&);

const Operation OPERATIONS[] = {
    plain<&CStrParser::ExpectEOL>,
    plain<&CStrParser::ConsumeWhitespace>,
    plain<&CStrParser::ConsumeWhitespaceInLine>,
    plain<&CStrParser::ConsumeUntilDigit>,
    plain<&CStrParser::ConsumeUntilHexDigit>,
    plain<&CStrParser::GetThruEOL>,
    plain<&CStrParser::ConsumeUntilNextLine>,
    plain<&CStrParser::ResetToLineHead>,
    withByte<&CStrParser::Expect>,
    withByte<&CStrParser::ConsumeUntil>,
    withByte<&CStrParser::ConsumeUntilinLine>,
    withByte<&CStrParser::GetThru>,
    withTable<&CStrParser::ConsumeUntil>,
    withTable<&CStrParser::ConsumeUntilinLine>,
    withText<&CStrParser::LocateString>,
    withText<&CStrParser::LocateStringCase>,
    withText<&CStrParser::LocateStringInLine>,
    withText<&CStrParser::LocateStringInLineCase>,
    comparing<&CStrParser::Compare>,
    comparing<&CStrParser::CompareCase>,
    comparing<&CStrParser::GetLineNumWithHead>,
    consumingNumber<&CStrParser::ConsumeInt64>,
    consumingNumber<&CStrParser::ConsumeUint64>,
    consumingNumber<&CStrParser::ConsumeInt16>,
    consumingNumber<&CStrParser::ConsumeUint16>,
    consumingNumber<&CStrParser::ConsumeDouble>,
    consumingNumber<&CStrParser::ConsumeFloat>,
    consumingNumber<&CStrParser::ConsumeHexUint32>,
    replacingNumber<std::int64_t, &CStrParser::ReplaceInt64>,
    replacingNumber<int, &CStrParser::ReplaceInt32>,
    replacingNumber<short, &CStrParser::ReplaceInt16>,
    replacingNumber<std::uint64_t, &CStrParser::ReplaceUint64>,
    replacingNumber<unsigned, &CStrParser::ReplaceUint32>,
    replacingNumber<unsigned short, &CStrParser::ReplaceUint16>,
    replacingNumber<float, &CStrParser::ReplaceFloat>,
    replacingNumber<double, &CStrParser::ReplaceDouble>,
    [](CStrParser& parser, CFuzzBytes& input) {
        CDestination to(input);
        require(parser.ConsumeWord(to.data(), to.size()) >= 0);
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        CDestination to(input);
        require(parser.ConsumeLength(input.word(), to.data(), to.size()) >= 0);
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        CDestination to(input);
        require(parser.ConsumeSentence(input.shortText().c_str(), to.data(), to.size()) >= 0);
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        CDestination to(input);
        const int before = parser.GetCurOffset();
        // Without a family nothing is looked up.
        const int length = parser.ConsumeIpAddr(to.data(), to.size(), nullptr);
        require(length <= static_cast<int>(to.size()) && length != 0);
        if (length < 0) require(parser.GetCurOffset() == before);
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        CDestination to(input);
        parser.GetLineWithHead(input.shortText().c_str(), to.data(), to.size());
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        if (parser.GetStringLen() > LONGEST_TEXT) return;
        useText(parser, input, [&parser](const char* text) { parser.ReplaceIpAddr(text); });
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        const int length = static_cast<int>(input.byte()) - 8;
        useText(parser, input, [&parser, length](const char* text) { parser.ReplaceLength(length, text); });
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        if (parser.GetStringLen() > LONGEST_TEXT) return;
        useText(parser, input, [&parser](const char* text) { require(parser.Append(text) >= 0); });
    },
    [](CStrParser& parser, CFuzzBytes& input) {
        useText(parser, input, [&parser](const char* text) { require(parser.Attach(text) == 0); });
    },
    [](CStrParser& parser, CFuzzBytes& input) { parser.LocateOffset(static_cast<int>(input.word()) - 16); },
    [](CStrParser& parser, CFuzzBytes&) { parser.ResetAll(); },
};

/// What holds after every operation.
void check(const CStrParser& parser) {
    const int length = parser.GetStringLen();
    require(length >= 0 && parser.GetCurOffset() >= 0 && parser.GetCurOffset() <= length + 1);
    require(parser.GetStatus() == 0 || parser.GetStatus() == -1);
    parser.GetCurChar();
    parser.CheckPrevChar();
    require(parser.GetCurLinelength() >= 0 && parser.GetCurLinelength() <= length);
    require(parser.GetLineNum() >= 0 && parser.GetLineNum() <= length);
    // The NUL is within the allocation, however many old bytes stand before it.
    if (parser.GetString() != nullptr) require(std::strlen(parser.GetString()) < SIZE_MAX);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CFuzzBytes input(data, size);
    const std::string text = input.bytes(input.word());
    CStrParser parser;
    if (!text.empty()) parser.Attach(text.data(), static_cast<unsigned>(text.size()));
    check(parser);
    while (!input.empty()) {
        OPERATIONS[input.byte() % std::size(OPERATIONS)](parser, input);
        check(parser);
    }
    return 0;
}
