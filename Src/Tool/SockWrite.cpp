#include "Tool/SockWrite.h"

#include <Ravelo/SimulatorStream.h>
#include <Ravelo/SockDgram.h>
#include <Ravelo/SockStream.h>

#include "Log.h"

namespace Veltro::Ravelo::SockWrite {

namespace {

// Not in the template: clang 14 does not take an assertion there.
int failUnknownType() {
    RAVELO_ASSERT(0);
    return -1;
}

/// Calls `act` with the socket as the class that its type code names; a class of another kind is entered here
/// and in isStream().
template <typename Act>
int asItsClass(CSock& sock, const Act& act) {
    switch (sock.GetType()) {
        case SOCK_TYPE_STREAM:
            return act(static_cast<CSockStream&>(sock));
        case SOCK_TYPE_DGRAM:
            return act(static_cast<CSockDgram&>(sock));
        case SOCK_TYPE_SIMULATOR:
            return act(static_cast<CSimulatorStream&>(sock));
        default:
            return failUnknownType();
    }
}

}  // namespace

bool isStream(unsigned type) {
    return type == SOCK_TYPE_STREAM || type == SOCK_TYPE_SIMULATOR;
}

int send(CSock& sock, const char* data, unsigned length_bytes) {
    return asItsClass(sock, [data, length_bytes](auto& its) { return its.Send(data, length_bytes); });
}

int writeV(CSock& sock, const iovec* elements, int count) {
    return asItsClass(sock, [elements, count](auto& its) { return its.WriteV(elements, count); });
}

}  // namespace Veltro::Ravelo::SockWrite
