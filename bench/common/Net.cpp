#include "common/Net.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

namespace Bench {

void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int listen_on(std::uint16_t port, bool shared) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) die("socket");
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (shared && setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) != 0) die("SO_REUSEPORT");
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) die("bind");
    if (listen(fd, 1024) != 0) die("listen");
    return fd;
}

std::uint16_t local_port(int fd) {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) die("getsockname");
    return ntohs(local.sin_port);
}

void set_no_delay(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace Bench
