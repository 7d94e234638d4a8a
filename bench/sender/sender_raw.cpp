// The lower bound: send() until the socket is full, then wait until it is writable. Nothing is kept but the
// rest of the block that was cut.
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "common/Net.h"
#include "sender/SenderSystem.h"

namespace Bench {

void run_sender(SLoad& load) {
    while (!load.is_over()) {
        for (std::size_t done = 0; done < load.size;) {
            const ssize_t sent = send(load.fd, load.block + done, load.size - done, MSG_NOSIGNAL);
            if (sent > 0) {
                done += static_cast<std::size_t>(sent);
                continue;
            }
            if (errno != EAGAIN) die("send");
            pollfd room{load.fd, POLLOUT, 0};
            poll(&room, 1, -1);
        }
        load.count();
    }
}

const char* sender_name() {
    return "raw";
}

}  // namespace Bench
