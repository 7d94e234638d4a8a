#include "common/ServerMain.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "common/Net.h"

namespace Bench {
namespace {

sigset_t stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

unsigned long number_or_exit(const char* text, unsigned long most) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value > most) {
        std::fprintf(stderr, "usage: server [port [threads [buffer bytes]]]\n");
        std::exit(2);
    }
    return value;
}

}  // namespace

SServerOptions prepare_server(int argc, char** argv) {
    SServerOptions options;
    if (argc > 1) options.port = static_cast<std::uint16_t>(number_or_exit(argv[1], 65535));
    if (argc > 2) options.threads = static_cast<unsigned>(number_or_exit(argv[2], 64));
    if (argc > 3) options.buffer_bytes = number_or_exit(argv[3], 1 << 20);
    if (options.threads == 0 || options.buffer_bytes == 0) number_or_exit("", 0);

    raise_descriptor_limit();
    std::signal(SIGPIPE, SIG_IGN);
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return options;
}

void announce_port(std::uint16_t port) {
    std::printf("%u\n", static_cast<unsigned>(port));
    std::fflush(stdout);
}

void wait_for_stop() {
    const sigset_t signals = stop_signals();
    int received = 0;
    sigwait(&signals, &received);
}

CStopEvent::CStopEvent() : m_fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (m_fd < 0) die("eventfd");
}

CStopEvent::~CStopEvent() {
    close(m_fd);
}

void CStopEvent::Raise() {
    eventfd_write(m_fd, 1);
}

}  // namespace Bench
