#include "echo/LoadWindow.h"

#include <cinttypes>
#include <cstdio>

#include "common/Clock.h"
#include "common/ProcessCpu.h"

namespace Bench {
namespace {

std::int64_t to_ns(double seconds) {
    return static_cast<std::int64_t>(seconds * 1e9);
}

}  // namespace

CLoadWindow::CLoadWindow(const SLoadOptions& options)
    : m_options(options),
      m_open_at_ns(now_ns() + to_ns(options.warmup_seconds)),
      m_close_at_ns(m_open_at_ns + to_ns(options.measure_seconds)) {}

bool CLoadWindow::Advance(std::int64_t now_ns) {
    if (!m_open && now_ns >= m_open_at_ns && m_window_ns == 0) open(now_ns);
    if (m_open && now_ns >= m_close_at_ns) close(now_ns);
    return m_open || m_window_ns == 0;
}

void CLoadWindow::open(std::int64_t now_ns) {
    m_open = true;
    m_open_at_ns = now_ns;
    m_close_at_ns = now_ns + to_ns(m_options.measure_seconds);
    m_server_cpu_ns = process_cpu_ns(m_options.server);
    m_load_cpu_ns = own_cpu_ns();
}

void CLoadWindow::close(std::int64_t now_ns) {
    m_open = false;
    m_window_ns = now_ns - m_open_at_ns;
    m_server_cpu_ns = process_cpu_ns(m_options.server) - m_server_cpu_ns;
    m_load_cpu_ns = own_cpu_ns() - m_load_cpu_ns;
}

void CLoadWindow::Print() const {
    const auto requests = static_cast<double>(m_latencies.Total());
    const double seconds = static_cast<double>(m_window_ns) / 1e9;
    const double cpu_us = requests > 0 ? static_cast<double>(m_server_cpu_ns) / 1000.0 / requests : 0;
    std::printf("{\"mode\":\"%s\",\"connections\":%u,\"idle\":%u,\"size\":%zu,\"requests\":%" PRIu64
                ",\"seconds\":%.3f,\"rps\":%.1f,\"p50_us\":%.2f,\"p99_us\":%.2f,\"p999_us\":%.2f,"
                "\"cpu_us\":%.4f,\"load_busy\":%.3f,\"errors\":%" PRIu64 "}\n",
                m_options.churn ? "churn" : "pingpong", m_options.connections, m_options.idle,
                m_options.size_bytes, m_latencies.Total(), seconds, requests / seconds,
                m_latencies.PercentileUs(0.5), m_latencies.PercentileUs(0.99),
                m_latencies.PercentileUs(0.999), cpu_us,
                static_cast<double>(m_load_cpu_ns) / static_cast<double>(m_window_ns), m_errors);
}

}  // namespace Bench
