// What there is of the remote command server: the table of commands, the server and its current session.
#pragma once

#include <Plinth/Mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "R3/R3Session.h"

namespace Veltro::Ravelo {

/// The registered functions, in the order of their registration. The pointers are kept, not what they point
/// to.
class TFuncBox {
public:
    static constexpr std::uint32_t MAX_COUNT = 1024;

    /// @return 0, or -1: null arguments, the box is full, or the name is taken.
    int Register(void* func, const char* name, const char* help);
    std::uint32_t count() const { return m_count; }

private:
    struct SEntry {
        void* func;
        const char* name;
        const char* help;
    };

    bool has(const char* name) const;

    std::uint32_t m_count = 0;
    SEntry m_entries[MAX_COUNT];
};

/// A server with the session that printed text goes to. Nothing in the library makes one: it is switched off.
class CR3Daemon {
public:
    /// Hands a text to the current session; nothing happens without one.
    void print(const char* text);
    /// Sets the current session, or takes it away with null.
    void setSession(std::shared_ptr<CR3Session> session);

private:
    Plinth::CMutex m_mutex;
    std::shared_ptr<CR3Session> m_session PLINTH_GUARDED_BY(m_mutex);
};

/// The process's box and server, behind the plain functions. Any thread may call.
namespace R3Server {

/// See the functions of Ravelo/R3Server.h.
int registerFunction(void* func, const char* name, const char* help);
int exit();
/// Whether there is a server that may have a session.
bool isRunning();
void print(const char* text);
/// Sets the server; for the day when there is one, and for tests.
void setDaemon(std::shared_ptr<CR3Daemon> daemon);
/// How many functions are registered; for tests.
std::uint32_t registered();

}  // namespace R3Server

}  // namespace Veltro::Ravelo
