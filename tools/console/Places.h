// Which consoles there are on this machine.
#pragma once

#include <string>
#include <vector>

namespace Veltro::Console {

/// The paths in a folder at which a console answers, in order.
std::vector<std::string> consolesIn(const std::string& folder);

}  // namespace Veltro::Console
