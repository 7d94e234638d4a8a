// The text parser. A text is copied into it, as a connection would do with what it has received.
#include <Ravelo/StrParser.h>
#include <strings.h>

#include "parser/ParserSystem.h"

namespace Bench {

namespace {

using Veltro::Ravelo::CStrParser;

/// The bytes of a word, and the space behind it.
std::uint64_t take_word(CStrParser& parser) {
    const int length = parser.ConsumeWord(nullptr, 0);
    parser.Expect(' ');
    return static_cast<std::uint64_t>(length);
}

/// The bytes up to CR LF, which are moved over.
std::uint64_t take_rest(CStrParser& parser) {
    return static_cast<std::uint64_t>(parser.GetThruEOL() - 2);
}

/// The bytes of a number.
std::uint64_t take_number(CStrParser& parser, SFound* found) {
    const int start = parser.GetCurOffset();
    found->numbers += parser.ConsumeUint64();
    return static_cast<std::uint64_t>(parser.GetCurOffset() - start);
}

/// Whether a name of 14 bytes that ends at the cursor is this one.
bool is_content_length(const CStrParser& parser) {
    return strncasecmp(parser.GetString() + parser.GetCurOffset() - 14, "Content-Length", 14) == 0;
}

}  // namespace

const char* parser_name() {
    return "ravelo";
}

bool parse_http(std::string_view text, SFound* found) {
    static CStrParser parser;
    parser.Attach(text.data(), static_cast<unsigned>(text.size()));
    *found = SFound{};
    for (int i = 0; i < 3; ++i) found->bytes += take_word(parser);
    parser.ExpectEOL();
    for (int name = parser.ConsumeUntilinLine(':'); name >= 0; name = parser.ConsumeUntilinLine(':')) {
        const bool is_length = name == 14 && is_content_length(parser);
        parser.Expect(':');
        parser.ConsumeWhitespaceInLine();
        if (is_length) found->bytes += take_number(parser, found);
        found->bytes += static_cast<std::uint64_t>(name) + take_rest(parser);
        ++found->fields;
    }
    return parser.ExpectEOL() > 0;
}

bool parse_sdp(std::string_view text, SFound* found) {
    static CStrParser parser;
    char address[64];
    parser.Attach(text.data(), static_cast<unsigned>(text.size()));
    *found = SFound{};
    // Behind the last line the cursor stays on its LF.
    for (char type = parser.GetCurChar(); type != '\0' && type != '\n'; type = parser.GetCurChar()) {
        parser.ConsumeLength(2, nullptr, 0);
        if (parser.CheckPrevChar() != '=') return false;
        ++found->fields;
        if (type == 'm') {
            found->bytes += take_word(parser);
            found->numbers += parser.ConsumeUint64();
            parser.Expect(' ');
        } else if (type == 'c') {
            found->bytes += take_word(parser) + take_word(parser);
            found->bytes +=
                static_cast<std::uint64_t>(parser.ConsumeIpAddr(address, sizeof address, nullptr));
        } else if (type == 'a') {
            const int name = parser.ConsumeUntilinLine(':');
            if (name >= 0) {
                found->bytes += static_cast<std::uint64_t>(name);
                parser.Expect(':');
            }
        }
        found->bytes += take_rest(parser);
    }
    return true;
}

}  // namespace Bench
