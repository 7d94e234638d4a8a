// Lines without what differs from run to run. Not std::regex, which g++ 12 warns about with the address
// sanitizer.
#pragma once

#include <algorithm>
#include <string>

namespace Veltro::TestSupport {

/// Every occurrence of a text as another.
inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

/// The number or address behind a text as another text, if what stands there is one of at least so many
/// digits.
inline std::string replacedNumber(std::string text, const std::string& before, const std::string& to,
                                  std::size_t least_digits = 1) {
    const std::size_t found = text.find(before);
    if (found == std::string::npos) return text;
    const std::size_t start = found + before.size();
    const std::size_t end = std::min(text.find_first_not_of("0123456789abcdefABCDEFx", start), text.size());
    if (end - start >= least_digits) text.replace(start, end - start, to);
    return text;
}

}  // namespace Veltro::TestSupport
