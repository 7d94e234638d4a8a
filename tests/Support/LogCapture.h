// Collects log lines while it lives.
#pragma once

#include <Plinth/Log.h>
#include <Plinth/Mutex.h>

#include <string>
#include <vector>

namespace Veltro::TestSupport {

/// Routes every log line up to a level to itself; one at a time per process.
class CLogCapture {
public:
    struct SLine {
        int level;
        std::string file;
        std::string function;
        std::string text;
    };

    explicit CLogCapture(int highest_level = Plinth::LOG_LEVEL_TRACE) {
        Plinth::setLogSink(
            [this](int level, const char* file, const char* function, int, const char* message) {
                Plinth::CLockGuard guard(m_mutex);
                m_lines.push_back({level, file, function, message});
            });
        Plinth::setLogLevel(highest_level);
    }
    ~CLogCapture() {
        Plinth::setLogLevel(Plinth::LOG_LEVEL_WARNING);
        Plinth::setLogSink({});
    }
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    std::vector<SLine> lines() const {
        Plinth::CLockGuard guard(m_mutex);
        return m_lines;
    }
    /// How many lines of a level contain a text.
    int count(int level, const std::string& text) const {
        int found = 0;
        for (const SLine& line : lines()) {
            if (line.level == level && line.text.find(text) != std::string::npos) ++found;
        }
        return found;
    }
    void clear() {
        Plinth::CLockGuard guard(m_mutex);
        m_lines.clear();
    }

private:
    mutable Plinth::CMutex m_mutex;
    std::vector<SLine> m_lines PLINTH_GUARDED_BY(m_mutex);
};

}  // namespace Veltro::TestSupport
