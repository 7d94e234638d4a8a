#include "R3/R3Daemon.h"

#include <cstring>
#include <new>
#include <utility>

#include "Log.h"

namespace Veltro::Ravelo {

bool TFuncBox::has(const char* name) const {
    for (std::uint32_t i = 0; i < m_count; ++i) {
        if (std::strcmp(m_entries[i].name, name) == 0) return true;
    }
    return false;
}

int TFuncBox::Register(void* func, const char* name, const char* help) {
    if (func == nullptr || name == nullptr) return -1;
    if (m_count >= MAX_COUNT) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "CR3Daemon::Register func box full!\n");
        return -1;
    }
    if (has(name)) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "TFuncBox::Register already exist!\n");
        return -1;
    }
    m_entries[m_count++] = {func, name, help};
    return 0;
}

void CR3Daemon::print(const char* text) {
    std::shared_ptr<CR3Session> session;
    {
        Plinth::CLockGuard guard(m_mutex);
        session = m_session;
    }
    if (session) session->output(text);
}

void CR3Daemon::setSession(std::shared_ptr<CR3Session> session) {
    Plinth::CLockGuard guard(m_mutex);
    m_session.swap(session);
}

namespace R3Server {

namespace {

struct SState {
    Plinth::CMutex mutex;  // guards box and daemon
    std::unique_ptr<TFuncBox> box PLINTH_GUARDED_BY(mutex);
    std::shared_ptr<CR3Daemon> daemon PLINTH_GUARDED_BY(mutex);
    std::atomic<bool> running{false};  // whether there is a daemon: printing without one costs one load
};

/// Never destroyed: threads may print while the process's statics go.
SState& s_state = *new SState;

}  // namespace

int registerFunction(void* func, const char* name, const char* help) {
    Plinth::CLockGuard guard(s_state.mutex);
    if (!s_state.box) s_state.box.reset(new (std::nothrow) TFuncBox);
    return s_state.box ? s_state.box->Register(func, name, help) : -1;
}

int exit() {
    setDaemon(nullptr);
    std::unique_ptr<TFuncBox> box;
    Plinth::CLockGuard guard(s_state.mutex);
    s_state.box.swap(box);
    return 0;
}

bool isRunning() {
    return s_state.running.load(std::memory_order_relaxed);
}

void print(const char* text) {
    std::shared_ptr<CR3Daemon> daemon;
    {
        Plinth::CLockGuard guard(s_state.mutex);
        daemon = s_state.daemon;
    }
    if (daemon) daemon->print(text);
}

void setDaemon(std::shared_ptr<CR3Daemon> daemon) {
    Plinth::CLockGuard guard(s_state.mutex);
    s_state.running.store(daemon != nullptr, std::memory_order_relaxed);
    s_state.daemon.swap(daemon);
}

std::uint32_t registered() {
    Plinth::CLockGuard guard(s_state.mutex);
    return s_state.box ? s_state.box->count() : 0;
}

}  // namespace R3Server

}  // namespace Veltro::Ravelo
