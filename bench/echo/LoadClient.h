// One client connection of the load generator.
#pragma once

#include <cstddef>
#include <cstdint>

#include "echo/Payload.h"

namespace Bench {

/// A non-blocking connection to 127.0.0.1 with at most one request under way. Used by one thread.
class CLoadClient {
public:
    enum class State { Waiting, Answered, Failed };

    explicit CLoadClient(const CPayload& payload) : m_payload(payload) {}
    ~CLoadClient() { Close(); }
    CLoadClient(const CLoadClient&) = delete;
    CLoadClient& operator=(const CLoadClient&) = delete;

    /// Begins to connect. @return false if the system refuses.
    bool Connect(std::uint16_t port);
    /// Begins a request; its bytes leave now or, where there is no room yet, in Continue().
    State Request(std::uint64_t number);
    /// Goes on sending and receiving; Answered when every byte of the request came back right.
    State Continue();
    /// Waits for the answer, at most until a moment of now_ns(); Failed if it does not come.
    State Finish(std::int64_t until_ns);
    /// Resets the connection (no TIME_WAIT is left behind, so that churn does not run out of ports).
    void Close();

    int Fd() const { return m_fd; }
    /// Whether bytes of the request still wait for room.
    bool Sending() const { return m_sent < m_wanted; }

    /// @name For the caller's use
    /// @{
    std::int64_t started_ns = 0;  ///< when the request under way began
    bool awaits_room = false;     ///< the caller waits for room to send
    /// @}

private:
    bool send_some();
    bool receive_some();

    const CPayload& m_payload;
    const char* m_request = nullptr;
    int m_fd = -1;
    std::size_t m_wanted = 0;
    std::size_t m_sent = 0;
    std::size_t m_received = 0;
};

}  // namespace Bench
