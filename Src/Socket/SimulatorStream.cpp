#include <Plinth/Time.h>
#include <Ravelo/SimulatorStream.h>
#include <Ravelo/SockStream.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <new>

#include "Socket/SimulatorClock.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::uint64_t PERIOD_MS = 1000;

std::atomic<std::uint64_t (*)()> s_clock{&Plinth::CTime::getCurrentMilliSecond};

std::uint64_t nowMs() {
    return s_clock.load(std::memory_order_relaxed)();
}

}  // namespace

void setSimulatorClock(std::uint64_t (*clock)()) {
    s_clock = clock != nullptr ? clock : &Plinth::CTime::getCurrentMilliSecond;
}

/// Null in an object for which there was no memory: it sends nothing.
struct CSimulatorStream::SInternal {
    std::uint32_t m_bandwidth = 0;  ///< bytes for each period
    std::uint32_t m_sent = 0;       ///< bytes let through in this period
    std::uint64_t m_period_start = nowMs();
    CSockStream* m_real = nullptr;  ///< not owned
    bool m_counts_only = true;      ///< no stream was ever set

    /// Begins a new period if one is due. @return bytes that it has left.
    std::uint32_t renewPeriod() {
        const std::uint64_t now = nowMs();
        if (now - m_period_start > PERIOD_MS) {
            m_period_start = now;
            m_sent = 0;
        }
        return m_sent < m_bandwidth ? m_bandwidth - m_sent : 0;
    }
    /// Sends what the period has room for.
    int pass(const char* data, std::uint32_t length) {
        int sent = 0;
        if (m_real != nullptr) {
            sent = m_real->Send(data, length);
        } else if (m_counts_only) {
            sent = static_cast<int>(length);
        }
        if (sent > 0) m_sent += static_cast<std::uint32_t>(sent);
        return sent;
    }
};

CSimulatorStream::CSimulatorStream()
    : CSock(-1, SOCK_TYPE_SIMULATOR), m_internal(new (std::nothrow) SInternal) {}

CSimulatorStream::~CSimulatorStream() {
    // The base would close what is the real stream's.
    m_fd = -1;
    delete m_internal;
}

void CSimulatorStream::SetRealSocket(CSockStream* real) {
    m_fd = real != nullptr ? real->GetHandle() : -1;
    if (m_internal == nullptr) return;
    m_internal->m_real = real;
    m_internal->m_counts_only = false;
}

int CSimulatorStream::SetBandWidth(unsigned int mbit) {
    if (m_internal == nullptr) return -1;
    m_internal->m_bandwidth = static_cast<std::uint32_t>(mbit << 20) / 8;
    return 0;
}

int CSimulatorStream::Send(const char* buf, unsigned int len) {
    if (m_internal == nullptr) return -1;
    const std::uint32_t left = m_internal->renewPeriod();
    return left == 0 ? 0 : m_internal->pass(buf, std::min(len, left));
}

int CSimulatorStream::WriteV(const iovec* vec, int count) {
    if (vec == nullptr || m_internal == nullptr) return -1;
    int total = 0;
    for (int i = 0; i < count; ++i) {
        const std::uint32_t length = vec[i].iov_len;
        // Periods may follow each other within the call: their sum stays an int.
        const auto room = static_cast<std::uint32_t>(INT_MAX - total);
        const std::uint32_t allowed = std::min({length, m_internal->renewPeriod(), room});
        const int sent = allowed == 0 ? 0 : m_internal->pass(vec[i].iov_base, allowed);
        if (sent < 0) return sent;
        total += sent;
        if (static_cast<std::uint32_t>(sent) < length) break;
    }
    return total;
}

}  // namespace Veltro::Ravelo
