// What an operator may type next.
#pragma once

#include <string>
#include <vector>

namespace Veltro::Console {

/// The words that the last word of a line, up to the cursor, may become; in order. After a blank the last
/// word is empty.
/// @param commands the first words that there are.
std::vector<std::string> complete(const std::vector<std::string>& commands, const std::string& line);

/// What all the words begin with.
std::string commonStart(const std::vector<std::string>& words);

}  // namespace Veltro::Console
