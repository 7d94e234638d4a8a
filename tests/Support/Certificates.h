// The certificates that the build makes for tests.
#pragma once

#include <string>

#include "Support/TemporaryFile.h"

namespace Veltro::TestSupport {

/// The path of a file that tests/Certificates/make.sh has made.
inline std::string certificate(const std::string& name) {
    return std::string(RAVELO_CERTIFICATES) + "/" + name;
}

}  // namespace Veltro::TestSupport
