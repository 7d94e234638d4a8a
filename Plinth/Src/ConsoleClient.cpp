#include <Plinth/Console.h>

#include "ConsoleTransport.h"

namespace Veltro::Plinth {

namespace Transport = ConsoleTransport;

struct CConsoleClient::SImpl {
    Transport::Handle handle = Transport::NONE;
    bool started = Transport::startup();
    std::string reason;
};

CConsoleClient::CConsoleClient() : m_impl(std::make_unique<SImpl>()) {}

CConsoleClient::~CConsoleClient() {
    detach();
    if (m_impl->started) Transport::cleanup();
}

bool CConsoleClient::attach(const char* path) {
    detach();
    m_impl->reason.clear();
    m_impl->handle = Transport::attach(path != nullptr ? path : "", m_impl->reason);
    return m_impl->handle != Transport::NONE;
}

bool CConsoleClient::send(const char* bytes, std::size_t length) {
    if (m_impl->handle == Transport::NONE) return false;
    while (length > 0) {
        const int sent = Transport::send(m_impl->handle, bytes, length);
        if (sent < 0) return false;
        bytes += sent;
        length -= static_cast<std::size_t>(sent);
    }
    return true;
}

int CConsoleClient::receive(char* bytes, std::size_t size, int timeout_ms) {
    if (m_impl->handle == Transport::NONE) return -1;
    Transport::SWait wait{m_impl->handle, true, false, false, false};
    Transport::wait(&wait, 1, timeout_ms);
    return wait.can_read ? Transport::receive(m_impl->handle, bytes, size) : 0;
}

void CConsoleClient::detach() {
    if (m_impl->handle != Transport::NONE) Transport::close(m_impl->handle);
    m_impl->handle = Transport::NONE;
}

const std::string& CConsoleClient::reason() const {
    return m_impl->reason;
}

}  // namespace Veltro::Plinth
