#include <Plinth/Log.h>
#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include "Immortal.h"
#include "LastErrorKeeper.h"
#include "LogTap.h"

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

SSinkSlot& sinkSlot() {
    static TImmortal<SSinkSlot> instance;
    return instance.get();
}

/// Whether the calling thread is inside of a sink.
thread_local bool t_in_sink = false;

/// The calling thread's tap, and how many threads have one: without any, a line costs one load more.
thread_local CLogTap* t_tap = nullptr;
std::atomic<int> s_taps{0};

const CLogTap* tapFor(int level) {
    if (s_taps.load(std::memory_order_relaxed) == 0) return nullptr;
    return level <= LOG_LEVEL_TRACE && !t_in_sink ? t_tap : nullptr;
}

bool passes(int level) {
    return level <= s_level.load(std::memory_order_relaxed);
}

std::shared_ptr<SSinkEntry> enterSink() {
    CLockGuard guard(sinkSlot().mutex);
    if (sinkSlot().entry) sinkSlot().entry->calls.fetch_add(1);
    return sinkSlot().entry;
}

/// Returns whether the sink took the line.
bool callSink(SSinkEntry& entry, int level, const char* file, const char* function, int line,
              const char* message) {
    bool taken = true;
    t_in_sink = true;
    try {
        entry.sink(level, file, function, line, message);
    } catch (...) {
        taken = false;
    }
    t_in_sink = false;
    entry.calls.fetch_sub(1);
    return taken;
}

const char* textOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

void deliver(int level, const char* file, const char* function, int line, const char* message) {
    if (const CLogTap* tap = tapFor(level)) tap->hear(message);
    if (!passes(level)) return;
    // A line logged by a sink would come back to it without end.
    const auto entry = t_in_sink ? nullptr : enterSink();
    if (!entry || !callSink(*entry, level, textOrEmpty(file), textOrEmpty(function), line, message)) {
        std::fputs(message, stderr);
        // On Windows a standard error that is no terminal is buffered; a crash would take the last lines
        // along.
        std::fflush(stderr);
    }
}

void formatAndDeliver(int level, const char* file, const char* function, int line, const char* format,
                      std::va_list values) PLINTH_PRINTF(5, 0);

void formatAndDeliver(int level, const char* file, const char* function, int line, const char* format,
                      std::va_list values) {
    char short_text[1024];
    std::va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(short_text, sizeof short_text, format, values);
    std::unique_ptr<char[]> long_text;
    if (length >= static_cast<int>(sizeof short_text)) {
        const auto size = static_cast<std::size_t>(length) + 1;
        long_text.reset(new (std::nothrow) char[size]);
        if (long_text) std::vsnprintf(long_text.get(), size, format, again);
    }
    va_end(again);
    // What cannot be formatted is worth more as it stands than not at all.
    const char* text = length < 0 ? format : long_text ? long_text.get() : short_text;
    deliver(level, file, function, line, text);
}

/// An entry for the sink; null when the sink is empty or there is no memory for one.
std::shared_ptr<SSinkEntry> makeEntry(LogSink&& sink) {
    if (!sink) return nullptr;
    try {
        auto entry = std::make_shared<SSinkEntry>();
        entry->sink = std::move(sink);
        return entry;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

void setLogSink(LogSink sink) {
    auto entry = makeEntry(std::move(sink));
    {
        CLockGuard guard(sinkSlot().mutex);
        sinkSlot().entry.swap(entry);
    }
    // Inside of a sink the wait could be for the caller itself.
    if (!entry || t_in_sink) return;
    while (entry->calls.load() > 0) sleepMilliSecond(1);
    // Another thread may hold the entry a moment longer, but what the sink captured goes here.
    entry->sink = nullptr;
}

void setLogLevel(int level) {
    s_level.store(level, std::memory_order_relaxed);
}

bool isLogEnabled(int level) {
    return passes(level) || tapFor(level) != nullptr;
}

CLogTap::CLogTap(Take take, void* context) : m_take(take), m_context(context), m_outer(t_tap) {
    t_tap = this;
    s_taps.fetch_add(1, std::memory_order_relaxed);
}

CLogTap::~CLogTap() {
    s_taps.fetch_sub(1, std::memory_order_relaxed);
    t_tap = m_outer;
}

void logFilter(int level, const char*, const char* file, const char* function, int line, const char*,
               const char* format, ...) {
    if (!isLogEnabled(level) || format == nullptr) return;
    const CLastErrorKeeper keeper;
    std::va_list values;
    va_start(values, format);
    formatAndDeliver(level, file, function, line, format, values);
    va_end(values);
}

void logInfo(const char* format, ...) {
    if (!isLogEnabled(LOG_LEVEL_PLAIN) || format == nullptr) return;
    const CLastErrorKeeper keeper;
    std::va_list values;
    va_start(values, format);
    formatAndDeliver(LOG_LEVEL_PLAIN, "", "", 0, format, values);
    va_end(values);
}

}  // namespace Veltro::Plinth
