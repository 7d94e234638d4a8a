// A steady_timer of standalone Asio, armed again for the next place on the grid.
#include <asio.hpp>
#include <chrono>

#include "common/Clock.h"
#include "timer/TickSystem.h"

namespace {

using namespace Bench;

class CTicker {
public:
    CTicker(std::size_t count, std::int64_t period_us) : m_count(count), m_period(period_us) {
        m_ticks.at_ns.reserve(count);
    }

    STicks Run() {
        m_ticks.base_ns = now_ns();
        m_place = std::chrono::steady_clock::now();
        arm();
        m_context.run();
        return m_ticks;
    }

private:
    void arm() {
        m_place += m_period;
        m_timer.expires_at(m_place);
        m_timer.async_wait([this](const asio::error_code&) {
            m_ticks.at_ns.push_back(now_ns());
            if (m_ticks.at_ns.size() < m_count) arm();
        });
    }

    const std::size_t m_count;
    const std::chrono::microseconds m_period;
    STicks m_ticks;
    asio::io_context m_context{1};
    asio::steady_timer m_timer{m_context};
    std::chrono::steady_clock::time_point m_place;
};

}  // namespace

namespace Bench {

STicks run_ticks(std::size_t count, std::int64_t period_us) {
    return CTicker(count, period_us).Run();
}

const char* tick_system_name() {
    return "asio";
}

}  // namespace Bench
