#include <Plinth/Log.h>
#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "LastErrorKeeper.h"

namespace Veltro::Plinth {

namespace {

std::atomic<int> s_level{LOG_LEVEL_WARNING};

/// A sink and the number of calls in progress, which whoever replaces it waits for.
struct SSinkEntry {
    LogSink sink;
    std::atomic<int> calls{0};
};

struct SSinkSlot {
    CMutex mutex;
    std::shared_ptr<SSinkEntry> entry PLINTH_GUARDED_BY(mutex);
};

/// Never destroyed: lines may be logged while the process's statics go.
SSinkSlot& sinkSlot() {
    static auto* instance = new SSinkSlot;
    return *instance;
}

/// How many sinks the calling thread is inside of.
thread_local int t_sink_depth = 0;

std::shared_ptr<SSinkEntry> enterSink() {
    CLockGuard guard(sinkSlot().mutex);
    if (sinkSlot().entry) sinkSlot().entry->calls.fetch_add(1);
    return sinkSlot().entry;
}

void deliver(int level, const char* file, const char* function, int line, const char* message) {
    // A line logged by a sink would come back to it without end.
    const auto entry = t_sink_depth == 0 ? enterSink() : nullptr;
    if (!entry) {
        std::fputs(message, stderr);
        return;
    }
    ++t_sink_depth;
    entry->sink(level, file, function, line, message);
    --t_sink_depth;
    entry->calls.fetch_sub(1);
}

void formatAndDeliver(int level, const char* file, const char* function, int line, const char* format,
                      std::va_list values) PLINTH_PRINTF(5, 0);

void formatAndDeliver(int level, const char* file, const char* function, int line, const char* format,
                      std::va_list values) {
    char short_text[1024];
    std::va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(short_text, sizeof short_text, format, values);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof short_text) {
        deliver(level, file, function, line, short_text);
    } else if (length >= 0) {
        std::string long_text(static_cast<std::size_t>(length) + 1, '\0');
        std::vsnprintf(long_text.data(), long_text.size(), format, again);
        deliver(level, file, function, line, long_text.c_str());
    }
    va_end(again);
}

}  // namespace

void setLogSink(LogSink sink) {
    auto entry = std::make_shared<SSinkEntry>();
    entry->sink = std::move(sink);
    if (!entry->sink) entry.reset();
    {
        CLockGuard guard(sinkSlot().mutex);
        sinkSlot().entry.swap(entry);
    }
    while (entry && t_sink_depth == 0 && entry->calls.load() > 0) sleepMilliSecond(1);
}

void setLogLevel(int level) {
    s_level.store(level, std::memory_order_relaxed);
}

bool isLogEnabled(int level) {
    return level <= s_level.load(std::memory_order_relaxed);
}

void logFilter(int level, const char*, const char* file, const char* function, int line, const char*,
               const char* format, ...) {
    if (!isLogEnabled(level)) return;
    const CLastErrorKeeper keeper;
    std::va_list values;
    va_start(values, format);
    formatAndDeliver(level, file, function, line, format, values);
    va_end(values);
}

void logInfo(const char* format, ...) {
    if (!isLogEnabled(LOG_LEVEL_PLAIN)) return;
    const CLastErrorKeeper keeper;
    std::va_list values;
    va_start(values, format);
    formatAndDeliver(LOG_LEVEL_PLAIN, "", "", 0, format, values);
    va_end(values);
}

}  // namespace Veltro::Plinth
