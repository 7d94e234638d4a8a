// An evbuffer for each connection, all of which refer to one copy of the packet.
#include <event2/buffer.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/Net.h"
#include "fanout/FanoutSystem.h"

namespace Bench {

namespace {

struct SShared {
    std::size_t references;
    char bytes[1];
};

void drop(const void*, std::size_t, void* shared) {
    auto* its = static_cast<SShared*>(shared);
    if (--its->references == 0) std::free(its);
}

/// Written at once, without events, which is the fastest that evbuffers can do; what is left goes with the
/// next packet.
class CLibeventFanout : public CFanoutSystem {
public:
    ~CLibeventFanout() override {
        for (const SConnection& connection : m_connections) evbuffer_free(connection.buffer);
    }
    void Add(int fd) override { m_connections.push_back({fd, evbuffer_new()}); }
    void Send(const char* packet, std::size_t length) override {
        auto* shared = static_cast<SShared*>(std::malloc(sizeof(SShared) + length));
        if (shared == nullptr) die("malloc");
        shared->references = m_connections.size();
        std::memcpy(shared->bytes, packet, length);
        for (const SConnection& connection : m_connections) {
            evbuffer_add_reference(connection.buffer, shared->bytes, length, drop, shared);
            if (evbuffer_write(connection.buffer, connection.fd) < 0 && errno != EAGAIN)
                die("evbuffer_write");
        }
    }

private:
    struct SConnection {
        int fd;
        evbuffer* buffer;
    };
    std::vector<SConnection> m_connections;
};

}  // namespace

std::unique_ptr<CFanoutSystem> make_fanout_system() {
    return std::make_unique<CLibeventFanout>();
}

const char* fanout_system_name() {
    return "libevent";
}

}  // namespace Bench
