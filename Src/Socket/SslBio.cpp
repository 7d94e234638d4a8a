#include "Socket/SslBio.h"

#include <Plinth/Time.h>

#include <memory>
#include <new>

#include "Socket/BioKind.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo::SslBio {

namespace {

struct SState {
    int fd = -1;
    int error = 0;
    bool has_ended = false;         ///< the peer has closed
    std::uint64_t deadline_us = 0;  ///< 0: none
};

SState& stateOf(const BIO* bio) {
    return bioState<SState>(bio);
}

/// With a deadline, waits for the socket until then; false, with an error, when it has passed.
bool waitInTime(SState& state, unsigned wanted) {
    if (state.deadline_us == 0) return true;
    for (;;) {
        const std::uint64_t now_us = Plinth::CTime::getCurrentMicroSecond();
        const auto left_us = static_cast<std::int64_t>(state.deadline_us - now_us);
        unsigned ready = 0;
        const int waited = SocketApi::waitOne(state.fd, wanted, left_us, &ready);
        if (waited > 0) return true;
        state.error = waited == 0 ? SocketApi::timedOutError() : SocketApi::lastError();
        if (waited == 0 || !SocketApi::isInterrupted(state.error)) return false;
    }
}

/// Moves bytes by a system call; one that a signal interrupts is repeated.
template <typename TCall>
int transfer(SState& state, unsigned wanted, TCall call) {
    for (;;) {
        if (!waitInTime(state, wanted)) return -1;
        const int moved = call();
        state.error = moved < 0 ? SocketApi::lastError() : 0;
        if (moved >= 0 || !SocketApi::isInterrupted(state.error)) return moved;
    }
}

int write(BIO* bio, const char* data, int length) {
    SState& state = stateOf(bio);
    BIO_clear_retry_flags(bio);
    const int sent = transfer(state, SocketApi::WAIT_WRITE, [&state, data, length] {
        return SocketApi::send(state.fd, data, static_cast<unsigned>(length));
    });
    if (sent < 0 && SocketApi::isTryAgain(state.error)) BIO_set_retry_write(bio);
    return sent;
}

int read(BIO* bio, char* buffer, int length) {
    SState& state = stateOf(bio);
    BIO_clear_retry_flags(bio);
    const int received = transfer(state, SocketApi::WAIT_READ, [&state, buffer, length] {
        return SocketApi::recv(state.fd, buffer, static_cast<unsigned>(length));
    });
    if (received < 0 && SocketApi::isTryAgain(state.error)) BIO_set_retry_read(bio);
    if (received == 0) state.has_ended = true;
    return received;
}

long control(BIO* bio, int command, long, void* pointer) {
    switch (command) {
        case BIO_CTRL_FLUSH:
        case BIO_CTRL_DUP:
            return 1;
        case BIO_CTRL_EOF:
            return stateOf(bio).has_ended ? 1 : 0;
        case BIO_C_GET_FD:
            if (pointer != nullptr) *static_cast<int*>(pointer) = stateOf(bio).fd;
            return stateOf(bio).fd;
        default:
            return 0;
    }
}

SBioKind s_kind{"stream", write, read, control, destroyBioState<SState>};

}  // namespace

BIO* create(int fd) {
    return createBio(&s_kind, std::unique_ptr<SState>(new (std::nothrow) SState{fd}));
}

void prepare(BIO* bio, int fd) {
    SState& state = stateOf(bio);
    state.fd = fd;
    state.error = 0;
}

int lastError(const BIO* bio) {
    return stateOf(bio).error;
}

void setTimeout(BIO* bio, std::int64_t timeout_ms) {
    const std::uint64_t now_us = Plinth::CTime::getCurrentMicroSecond();
    stateOf(bio).deadline_us = timeout_ms > 0 ? now_us + static_cast<std::uint64_t>(timeout_ms) * 1000 : 0;
}

}  // namespace Veltro::Ravelo::SslBio
