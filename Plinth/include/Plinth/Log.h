#pragma once

#include <Plinth/Defs.h>

#include <functional>

namespace Veltro::Plinth {

/// Levels of a log line.
enum : int {
    LOG_LEVEL_PLAIN = 0,    ///< a plain line of logInfo()
    LOG_LEVEL_FATAL = 1,    ///< the process cannot go on
    LOG_LEVEL_ERROR = 2,    ///< an operation failed
    LOG_LEVEL_WARNING = 3,  ///< worth a look; the highest level that passes at start
    LOG_LEVEL_TRACE = 4     ///< successes and traces
};

/// Receives every line that passes the level, formatted, with its end of line if the format has one.
///
/// May be called from any thread, also from several at once. The texts live until it returns; `file` and
/// `function` are never null, and empty for plain lines. A line that the sink itself logs, and one whose sink
/// throws, goes to standard error instead.
using LogSink =
    std::function<void(int level, const char* file, const char* function, int line, const char* message)>;

/// Routes all lines to an application's own logger; an empty sink goes back to the default, which writes to
/// standard error.
///
/// Any thread may call, while others log. Waits until the former sink runs nowhere: when it returns, that
/// sink is not called again and what it captured is gone, so the caller must hold no lock that the sink
/// takes. From inside a sink (also to replace that very sink) it does not wait, and the former sink goes when
/// the last line in it has been taken. Without memory for the new sink, lines go to the default.
PLINTH_API void setLogSink(LogSink sink);

/// Sets the highest level that passes, whatever the sink; 3 at start, 0 leaves plain lines alone, a negative
/// level none. Any thread may call.
PLINTH_API void setLogLevel(int level);

/// Whether a line of this level would pass. Any thread may call; never blocks.
PLINTH_API bool isLogEnabled(int level);

/// Writes one line if its level passes; a line that does not pass is not formatted. Any thread may call; may
/// block in the sink. Lines may have any length. Keeps the calling thread's last system error as it was.
/// @param module, tag reserved for filters; unused today, and may be null.
/// @param file, function, line where the line comes from, for the sink; the texts may be null.
/// @param format, ... as of printf, with the C99 lengths (%jd, %zu, %lld) on every platform.
PLINTH_API void logFilter(int level, const char* module, const char* file, const char* function, int line,
                          const char* tag, const char* format, ...) PLINTH_PRINTF(7, 8);

/// As logFilter(), for one plain line: level 0, from nowhere.
PLINTH_API void logInfo(const char* format, ...) PLINTH_PRINTF(1, 2);

}  // namespace Veltro::Plinth
