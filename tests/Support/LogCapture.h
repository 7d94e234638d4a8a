// Collects log lines while it lives.
#pragma once

#include <Plinth/Log.h>
#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Time.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Veltro::TestSupport {

/// Routes every log line up to a level to itself; one at a time per process. Any thread may ask it.
class CLogCapture {
public:
    struct SLine {
        int level;
        std::string file;
        std::string function;
        int number;
        std::string text;
    };

    explicit CLogCapture(int highest_level = Plinth::LOG_LEVEL_TRACE) {
        Plinth::setLogSink(
            [this](int level, const char* file, const char* function, int number, const char* message) {
                {
                    Plinth::CLockGuard guard(m_mutex);
                    m_lines.push_back({level, file, function, number, message});
                }
                m_arrived.post();
            });
        Plinth::setLogLevel(highest_level);
    }
    ~CLogCapture() {
        Plinth::setLogLevel(Plinth::LOG_LEVEL_WARNING);
        Plinth::setLogSink({});
    }
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    /// What was logged, but for the pools' daemons, which try to register the console at times of their own.
    std::vector<SLine> lines() const {
        std::vector<SLine> others = allLines();
        std::erase_if(others, [](const SLine& line) {
            return line.text.find("InitConsoleDebug") != std::string::npos ||
                   line.text.find("IConsole c") != std::string::npos;
        });
        return others;
    }
    std::vector<SLine> allLines() const {
        Plinth::CLockGuard guard(m_mutex);
        return m_lines;
    }
    /// How many lines of a level contain a text.
    int count(int level, const std::string& text) const {
        int found = 0;
        for (const SLine& line : allLines()) {
            if (line.level == level && line.text.find(text) != std::string::npos) ++found;
        }
        return found;
    }
    /// Waits until at least `wanted` lines of a level contain a text; returns whether they came in time.
    /// One thread at a time may wait.
    bool waitFor(int level, const std::string& text, int wanted = 1, std::int64_t timeout_us = 10'000'000) {
        const std::uint64_t start_us = Plinth::CTime::getCurrentMicroSecond();
        while (count(level, text) < wanted) {
            const auto gone_us = static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond() - start_us);
            if (!m_arrived.pend(timeout_us - gone_us)) return count(level, text) >= wanted;
        }
        return true;
    }
    void clear() {
        Plinth::CLockGuard guard(m_mutex);
        m_lines.clear();
    }

private:
    mutable Plinth::CMutex m_mutex;
    std::vector<SLine> m_lines PLINTH_GUARDED_BY(m_mutex);
    Plinth::CSemaphore m_arrived;  // one post for each line
};

}  // namespace Veltro::TestSupport
