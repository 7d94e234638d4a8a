// The measured window of a run.
#pragma once

#include <cstdint>

#include "common/Histogram.h"
#include "echo/LoadOptions.h"

namespace Bench {

/// Counts what is answered between the end of the warm-up and the end of the run.
class CLoadWindow {
public:
    explicit CLoadWindow(const SLoadOptions& options);

    /// Opens and closes the window as time goes by. @return false when the run is over.
    bool Advance(std::int64_t now_ns);
    /// A request was answered.
    void Answered(std::int64_t started_ns, std::int64_t ended_ns) {
        if (m_open) m_latencies.Add(ended_ns - started_ns);
    }
    /// A request, or a connection, failed; counts at any time.
    void Failed() { m_errors++; }

    std::uint64_t Errors() const { return m_errors; }
    /// One line of JSON on standard output.
    void Print() const;

private:
    void open(std::int64_t now_ns);
    void close(std::int64_t now_ns);

    SLoadOptions m_options;
    CHistogram m_latencies;
    std::uint64_t m_errors = 0;
    bool m_open = false;
    std::int64_t m_open_at_ns;
    std::int64_t m_close_at_ns;
    std::int64_t m_window_ns = 0;
    std::int64_t m_server_cpu_ns = 0;
    std::int64_t m_load_cpu_ns = 0;
};

}  // namespace Bench
