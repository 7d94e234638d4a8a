#include "Log.h"

#include <cstdlib>

namespace Veltro::Ravelo {

void assertFailed(const char* expression, const char* file, const char* function, int line) {
    Plinth::logFilter(Plinth::LOG_LEVEL_FATAL, "Unknown", file, function, line, "Unknown",
                      "[%s:%d] tid:%d, Assertion failed: %s\n", file, line, logThreadId(), expression);
    std::abort();
}

}  // namespace Veltro::Ravelo
