#pragma once

namespace Veltro::Plinth {

/// Shows a thread's log lines to somebody else too, while it lives: every level up to LOG_LEVEL_TRACE,
/// whatever the log itself lets through. Lines that a sink logs are left out. Made and destroyed on the same
/// thread; the one made last hears.
class CLogTap {
public:
    /// Takes one formatted message; must not throw.
    using Take = void (*)(void* context, const char* message);

    CLogTap(Take take, void* context);
    ~CLogTap();
    CLogTap(const CLogTap&) = delete;
    CLogTap& operator=(const CLogTap&) = delete;

    void hear(const char* message) const { m_take(m_context, message); }

private:
    Take m_take;
    void* m_context;
    CLogTap* m_outer;  ///< whom it silences
};

}  // namespace Veltro::Plinth
