#include "Core/WinPipe.h"

#include "Log.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

void CWINPipe::Close() {
    if (m_read_fd >= 0) SocketApi::close(m_read_fd);
    if (m_write_fd >= 0) SocketApi::close(m_write_fd);
    m_read_fd = -1;
    m_write_fd = -1;
}

int CWINPipe::Read(int fd, char* buffer, int length) {
    const int received = SocketApi::recv(fd, buffer, static_cast<unsigned>(length));
    if (received > 0) return received;
    if (received == 0) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "socket disconnected\n");
        return -1;
    }
    const int error = SocketApi::lastError();
    if (SocketApi::isTryAgain(error)) return 0;
    if (SocketApi::isReset(error)) return -1;
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "recv failed, %s\n", SocketApi::errorText(error).data());
    return -1;
}

int CWINPipe::Write(int fd, const char* buffer, int length) {
    const int sent = SocketApi::send(fd, buffer, static_cast<unsigned>(length));
    if (sent >= 0) return sent;
    const int error = SocketApi::lastError();
    if (SocketApi::isTryAgain(error)) return 0;
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "send failed! %s\n", SocketApi::errorText(error).data());
    return -1;
}

}  // namespace Veltro::Ravelo
