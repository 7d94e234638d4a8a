#pragma once

#include <Plinth/Console.h>

#include <cstdint>
#include <string>

#include "ConsoleTransport.h"

namespace Veltro::Plinth {

/// What all operators together may leave unread.
struct SConsoleBudget {
    std::size_t kept_bytes = 0;
};

/// One operator of the console host: his connection, his dialogue, and the part of the answers that he has
/// not read yet. Used by the host's thread only.
class CConsoleOperator {
public:
    /// What one operator, and all together, may leave unread.
    static constexpr std::size_t MAX_KEPT = 8 << 20;
    static constexpr std::size_t MAX_KEPT_BY_ALL = 64 << 20;
    /// One who has not said the token within this time is sent away.
    static constexpr std::uint64_t TOKEN_TIME_MS = 10'000;

    /// @param handle becomes the operator's. @param token what he must say first; empty for nothing.
    CConsoleOperator(ConsoleTransport::Handle handle, const std::string& token, SConsoleBudget& budget);
    ~CConsoleOperator();
    CConsoleOperator(const CConsoleOperator&) = delete;
    CConsoleOperator& operator=(const CConsoleOperator&) = delete;

    /// What to wait for: what he types while nothing of his waits, and room for what he has not read.
    ConsoleTransport::SWait wish() const;
    /// Takes what the wait brought: reads, runs what is due, and sends. Returns whether he is still there.
    bool serve(const ConsoleTransport::SWait& ready);
    /// Tells him something and nothing more.
    void dismiss(const char* text);
    /// Whether he has been asked for the token for too long.
    bool isOverdue(std::uint64_t now_ms) const;

private:
    bool read();
    bool admit(const char* bytes, std::size_t length);
    void runLines();
    bool flush();
    void keep(const char* bytes, std::size_t length);
    void endAnswer();
    std::size_t unsent() const { return m_kept.size() - m_sent; }

    ConsoleTransport::Handle m_handle;
    const std::string& m_token;
    SConsoleBudget& m_budget;
    std::uint64_t m_since_ms;
    bool m_admitted;
    bool m_typed_all = false;    ///< nothing more comes from him
    std::string m_introduction;  ///< what came while the token was not complete
    std::string m_kept;          ///< answers; those up to m_sent have gone
    std::size_t m_sent = 0;
    std::size_t m_left_out = 0;  ///< bytes of the present answer that found no room
    CConsoleDialogue m_dialogue;
};

}  // namespace Veltro::Plinth
