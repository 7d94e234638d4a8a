// Lines that fit a terminal.
#pragma once

#include <cstddef>
#include <string>

namespace Veltro::Console {

/// Breaks a line, given without its end, into lines of at most so many columns, each with its end. It breaks
/// at blanks where it can and indents what follows; a line of dashes is cut instead. 0 columns leave it as it
/// is.
std::string fold(const std::string& line, std::size_t columns);

}  // namespace Veltro::Console
