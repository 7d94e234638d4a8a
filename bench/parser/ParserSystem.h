// What a contestant of the parser benchmark gives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Bench {

/// What was found in a text; the same for every contestant, or it has not parsed.
struct SFound {
    std::uint64_t fields = 0;   ///< header fields, or lines
    std::uint64_t bytes = 0;    ///< of all pieces together: words, names, values
    std::uint64_t numbers = 0;  ///< sum of what was read as a number

    bool operator==(const SFound&) const = default;
};

const char* parser_name();
/// Request line in three words, names and values of all header fields, Content-Length as a number. Pieces
/// stay where they are: nothing is copied but what the contestant needs itself.
bool parse_http(std::string_view text, SFound* found);
/// Type and value of every line; of attributes name and value, of media lines the port as a number, of
/// connection lines the address's text. @return false if this contestant cannot.
bool parse_sdp(std::string_view text, SFound* found);

}  // namespace Bench
