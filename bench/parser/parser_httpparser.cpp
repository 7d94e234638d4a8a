// Debian's http-parser, a state machine that looks at every byte and calls back for every piece.
#include <http_parser.h>

#include <cstring>
#include <string>

#include "parser/ParserSystem.h"

namespace Bench {

namespace {

int on_piece(http_parser* parser, const char*, std::size_t length) {
    static_cast<SFound*>(parser->data)->bytes += length;
    return 0;
}

int on_value(http_parser* parser, const char* at, std::size_t length) {
    ++static_cast<SFound*>(parser->data)->fields;
    return on_piece(parser, at, length);
}

int on_headers(http_parser* parser) {
    auto* found = static_cast<SFound*>(parser->data);
    found->numbers += parser->content_length;
    // It gives method and version as numbers: count what they are written with.
    found->bytes += std::strlen(http_method_str(static_cast<http_method>(parser->method)));
    found->bytes += std::strlen("HTTP/1.1");
    return 0;
}

}  // namespace

const char* parser_name() {
    return "http-parser";
}

bool parse_http(std::string_view text, SFound* found) {
    static const http_parser_settings settings = [] {
        http_parser_settings made{};
        http_parser_settings_init(&made);
        made.on_url = on_piece;
        made.on_header_field = on_piece;
        made.on_header_value = on_value;
        made.on_headers_complete = on_headers;
        return made;
    }();
    http_parser parser{};
    *found = SFound{};
    http_parser_init(&parser, HTTP_REQUEST);
    parser.data = found;
    return http_parser_execute(&parser, &settings, text.data(), text.size()) == text.size();
}

bool parse_sdp(std::string_view, SFound*) {
    return false;
}

}  // namespace Bench
