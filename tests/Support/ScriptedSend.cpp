#include "ScriptedSend.h"

#include <Ravelo/Defs.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "Socket/SocketApi.h"

namespace {

std::atomic<int> s_fd{-1};
std::atomic<Veltro::TestSupport::CScriptedSend*> s_script{nullptr};

Veltro::TestSupport::CScriptedSend* scriptOf(int fd) {
    return fd >= 0 && fd == s_fd.load() ? s_script.load() : nullptr;
}

}  // namespace

namespace Veltro::TestSupport {

CScriptedSend::CScriptedSend(int fd) {
    s_script = this;
    s_fd = fd;
}

CScriptedSend::~CScriptedSend() {
    s_fd = -1;
    s_script = nullptr;
}

void CScriptedSend::setRoom(std::size_t room_bytes) {
    Plinth::CLockGuard guard(m_mutex);
    m_room = room_bytes;
}

void CScriptedSend::setFailing(bool failing) {
    Plinth::CLockGuard guard(m_mutex);
    m_failing = failing;
}

std::string CScriptedSend::take() {
    Plinth::CLockGuard guard(m_mutex);
    return std::exchange(m_taken, {});
}

std::size_t CScriptedSend::takeAs(std::string_view text, bool* as) {
    Plinth::CLockGuard guard(m_mutex);
    *as = text.substr(0, m_taken.size()) == m_taken;
    const std::size_t length_bytes = m_taken.size();
    m_taken.clear();  // and keep its memory
    return length_bytes;
}

int CScriptedSend::sends() const {
    Plinth::CLockGuard guard(m_mutex);
    return m_sends;
}

int CScriptedSend::gatheredSends() const {
    Plinth::CLockGuard guard(m_mutex);
    return m_gathered;
}

int CScriptedSend::elements() const {
    Plinth::CLockGuard guard(m_mutex);
    return m_elements;
}

int CScriptedSend::send(const char* data, std::size_t length_bytes) {
    Plinth::CLockGuard guard(m_mutex);
    if (m_failing) {
        Ravelo::SocketApi::setLastError(Ravelo::SocketApi::resetError());
        return -1;
    }
    const std::size_t taken = std::min(length_bytes, m_room);
    if (m_room != EVERYTHING) m_room -= taken;
    m_taken.append(data, taken);
    return static_cast<int>(taken);
}

void CScriptedSend::countSend() {
    Plinth::CLockGuard guard(m_mutex);
    m_sends += 1;
}

void CScriptedSend::countGathered(int elements) {
    Plinth::CLockGuard guard(m_mutex);
    m_gathered += 1;
    m_elements = elements;
}

}  // namespace Veltro::TestSupport

// The linker leads calls of SocketApi::send and SocketApi::sendV here, and those of the __real_ names to the
// bodies.

using Element = Veltro::Ravelo::iovec;

extern "C" {

int __real__ZN6Veltro6Ravelo9SocketApi4sendEiPKcj(int fd, const char* data, unsigned length);
int __real__ZN6Veltro6Ravelo9SocketApi5sendVEiPKNS0_5iovecEi(int fd, const Element* elements, int count);

int __wrap__ZN6Veltro6Ravelo9SocketApi4sendEiPKcj(int fd, const char* data, unsigned length) {
    Veltro::TestSupport::CScriptedSend* script = scriptOf(fd);
    if (script == nullptr) return __real__ZN6Veltro6Ravelo9SocketApi4sendEiPKcj(fd, data, length);
    script->countSend();
    return script->send(data, length);
}

int __wrap__ZN6Veltro6Ravelo9SocketApi5sendVEiPKNS0_5iovecEi(int fd, const Element* elements, int count) {
    Veltro::TestSupport::CScriptedSend* script = scriptOf(fd);
    if (script == nullptr) {
        return __real__ZN6Veltro6Ravelo9SocketApi5sendVEiPKNS0_5iovecEi(fd, elements, count);
    }
    script->countGathered(count);
    int total = 0;
    for (int i = 0; i < count; ++i) {
        const int sent = script->send(elements[i].iov_base, elements[i].iov_len);
        if (sent < 0) return sent;
        total += sent;
        if (static_cast<unsigned>(sent) < elements[i].iov_len) break;
    }
    return total;
}

}  // extern "C"
