// Sends blocks of one size over one connection: `sender_<contestant> <bytes> [seconds]`; one line of JSON.
//
// The other end is a process of its own, on the other processor, that reads and counts.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "common/Clock.h"
#include "common/Net.h"
#include "common/Placement.h"
#include "common/ProcessCpu.h"
#include "sender/SenderSystem.h"

namespace {

using namespace Bench;

constexpr double kDefaultSeconds = 0.3;

/// Reads until the end and writes the number of bytes to a pipe.
[[noreturn]] void read_all(std::uint16_t port, int result) {
    pin_to(1);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) die("connect");
    std::vector<char> buffer(256 * 1024);
    std::uint64_t total = 0;
    ssize_t received = 0;
    while ((received = recv(fd, buffer.data(), buffer.size(), 0)) > 0) {
        total += static_cast<std::uint64_t>(received);
    }
    if (received < 0) die("recv");
    if (write(result, &total, sizeof total) != sizeof total) die("write");
    _exit(0);
}

struct SPeer {
    int fd = -1;      ///< connected to it
    int result = -1;  ///< where it writes what it has read
};

SPeer start_peer() {
    int pipe_ends[2];
    if (pipe(pipe_ends) != 0) die("pipe");
    const int listener = listen_on(0, false);
    const std::uint16_t port = local_port(listener);
    const pid_t child = fork();
    if (child < 0) die("fork");
    if (child == 0) {
        close(listener);
        read_all(port, pipe_ends[1]);
    }
    close(pipe_ends[1]);
    SPeer peer{-1, pipe_ends[0]};
    while ((peer.fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK)) < 0) {
        if (errno != EAGAIN) die("accept");
        std::this_thread::yield();
    }
    close(listener);
    set_no_delay(peer.fd);
    return peer;
}

void sleep_for(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t size = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 0;
    const double seconds = argc > 2 ? std::atof(argv[2]) : kDefaultSeconds;
    if (size == 0 || size > kKeptBytes) {
        std::fprintf(stderr, "usage: %s BYTES [SECONDS]\n", argv[0]);
        return 2;
    }
    const SPeer peer = start_peer();
    pin_to(0);
    const std::string block(size, 'b');
    SLoad load;
    load.fd = peer.fd;
    load.block = block.data();
    load.size = size;
    std::thread runner([&load] { run_sender(load); });
    sleep_for(seconds / 3);  // warm-up
    const std::int64_t start_ns = now_ns();
    const std::int64_t start_cpu_ns = own_cpu_ns();
    const std::uint64_t start_bytes = load.bytes.load();
    sleep_for(seconds);
    const auto bytes = static_cast<double>(load.bytes.load() - start_bytes);
    const auto cpu_ns = static_cast<double>(own_cpu_ns() - start_cpu_ns);
    const auto took_ns = static_cast<double>(now_ns() - start_ns);
    load.stop = true;
    runner.join();
    shutdown(peer.fd, SHUT_WR);
    std::uint64_t received = 0;
    if (read(peer.result, &received, sizeof received) != sizeof received || received != load.bytes.load()) {
        std::fprintf(stderr, "%s: %llu bytes arrived of %llu\n", argv[0],
                     static_cast<unsigned long long>(received),
                     static_cast<unsigned long long>(load.bytes.load()));
        return 1;
    }
    wait(nullptr);
    std::printf("{\"sender\":\"%s\",\"size\":%zu,\"mb_per_second\":%.1f,\"cpu_us_per_mb\":%.1f}\n",
                sender_name(), size, bytes * 1000 / took_ns, cpu_ns * 1000 / bytes);
    return 0;
}
