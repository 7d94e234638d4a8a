#include "Core/WakePipe.h"

namespace Veltro::Ravelo {

void CWakePipe::wake() {
    Plinth::CLockGuard guard(m_mutex);
    if (m_pending_bytes > 0) return;
    const int written = CWINPipe::Write(m_pipe.writeFd(), "w", 1);
    if (written > 0) m_pending_bytes += written;
}

void CWakePipe::drain() {
    Plinth::CLockGuard guard(m_mutex);
    if (m_pending_bytes <= 0) return;
    char bytes[256];
    const int received = CWINPipe::Read(m_pipe.readFd(), bytes, sizeof bytes);
    if (received > 0) m_pending_bytes -= received;
}

}  // namespace Veltro::Ravelo
