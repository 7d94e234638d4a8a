// The pair of sockets that the system has.
#include <sys/socket.h>

#include "Core/WinPipe.h"

namespace Veltro::Ravelo {

int CWINPipe::Create(bool block) {
    int ends[2];
    const int flags = SOCK_STREAM | SOCK_CLOEXEC | (block ? 0 : SOCK_NONBLOCK);
    if (::socketpair(AF_UNIX, flags, 0, ends) != 0) return -1;
    m_read_fd = ends[0];
    m_write_fd = ends[1];
    return 0;
}

}  // namespace Veltro::Ravelo
