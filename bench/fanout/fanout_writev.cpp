// The limit: one writev for each connection and nothing else.
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "common/Net.h"
#include "fanout/FanoutSystem.h"

namespace Bench {

namespace {

/// A socket that takes less than a packet is waited for: it happens when the receivers cannot keep up.
class CWritevFanout : public CFanoutSystem {
public:
    void Add(int fd) override { m_fds.push_back(fd); }
    void Send(const char* packet, std::size_t length) override {
        for (const int fd : m_fds) send_whole(fd, packet, length);
    }

private:
    static void send_whole(int fd, const char* packet, std::size_t length) {
        while (length > 0) {
            iovec element{const_cast<char*>(packet), length};
            const ssize_t sent = writev(fd, &element, 1);
            if (sent < 0 && errno != EAGAIN) die("writev");
            if (sent < 0) {
                pollfd wanted{fd, POLLOUT, 0};
                poll(&wanted, 1, -1);
                continue;
            }
            packet += sent;
            length -= static_cast<std::size_t>(sent);
        }
    }

    std::vector<int> m_fds;
};

}  // namespace

std::unique_ptr<CFanoutSystem> make_fanout_system() {
    return std::make_unique<CWritevFanout>();
}

const char* fanout_system_name() {
    return "writev";
}

}  // namespace Bench
