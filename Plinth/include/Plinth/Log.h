#pragma once

#include <Plinth/Defs.h>

#include <functional>

namespace Veltro::Plinth {

/// Levels of a log line.
enum : int {
    LOG_LEVEL_PLAIN = 0,    ///< a plain line of logInfo()
    LOG_LEVEL_FATAL = 1,    ///< the process cannot go on
    LOG_LEVEL_ERROR = 2,    ///< an operation failed
    LOG_LEVEL_WARNING = 3,  ///< worth a look; the default sink's highest level
    LOG_LEVEL_TRACE = 4     ///< successes and traces
};

/// Receives every line that passes the level, formatted, with its end of line if the format has one.
/// May be called from any thread, also from several at once. `file` and `function` are empty for plain lines.
using LogSink =
    std::function<void(int level, const char* file, const char* function, int line, const char* message)>;

/// Routes all lines to an application's own logger; an empty sink goes back to the default, which writes to
/// standard error. When it returns, the former sink is not running and will not be called again, unless it is
/// called from inside a sink. Any thread may call.
PLINTH_API void setLogSink(LogSink sink);

/// Sets the highest level that passes; 3 at start. Any thread may call.
PLINTH_API void setLogLevel(int level);

/// Whether a line of this level would pass.
PLINTH_API bool isLogEnabled(int level);

/// Writes one line if its level passes; a line that does not pass is not formatted. Keeps the calling
/// thread's last system error as it was.
/// @param module, tag reserved for filters of the sink's side; the default sink ignores them.
PLINTH_API void logFilter(int level, const char* module, const char* file, const char* function, int line,
                          const char* tag, const char* format, ...) PLINTH_PRINTF(7, 8);

/// Writes one plain line, level 0.
PLINTH_API void logInfo(const char* format, ...) PLINTH_PRINTF(1, 2);

}  // namespace Veltro::Plinth
