// The load generator's event loop.
#pragma once

#include <cstdint>
#include <deque>

#include "echo/LoadClient.h"
#include "echo/LoadOptions.h"
#include "echo/LoadWindow.h"

namespace Bench {

/// Drives all connections from one thread over epoll. Each active connection has one request under way; in
/// churn mode a connection is replaced by a new one after each answer.
class CLoadLoop {
public:
    CLoadLoop(const SLoadOptions& options, CLoadWindow& window, const CPayload& payload);
    ~CLoadLoop();
    CLoadLoop(const CLoadLoop&) = delete;
    CLoadLoop& operator=(const CLoadLoop&) = delete;

    /// Makes requests until the window closes, then waits for the answers still missing.
    void Run();

private:
    void start(CLoadClient& client);
    void serve(CLoadClient& client);
    void answered(CLoadClient& client);
    void fail(CLoadClient& client);
    void watch(CLoadClient& client, int operation);
    bool open(CLoadClient& client);
    void finish_all();

    SLoadOptions m_options;
    CLoadWindow& m_window;
    int m_epoll;
    unsigned m_alive = 0;
    std::uint64_t m_number = 0;
    std::deque<CLoadClient> m_clients;
};

}  // namespace Bench
