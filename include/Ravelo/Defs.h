// Names shared by all public headers: the export macro, gather elements, event masks, type codes.
#pragma once

#include <cstdint>

#if defined(_WIN32)
#if defined(RAVELO_BUILDING)
#define RAVELO_API __declspec(dllexport)
#else
#define RAVELO_API __declspec(dllimport)
#endif
#else
#define RAVELO_API __attribute__((visibility("default")))
#endif

/// Defined by the system's socket headers; an application that builds addresses from them includes those.
struct sockaddr;
struct sockaddr_in;
struct sockaddr_in6;

namespace Veltro::Ravelo {

/// One element of a gather list; length first on every platform.
struct iovec {
    std::uint32_t iov_len;  ///< bytes
    char* iov_base;         ///< only read by the library
};

/// What a handler wants to hear of a socket; bits of CNetHandler::RegisterSock's mask.
namespace EventMask {
enum : unsigned {
    None = 0,
    Read = 0x001,     ///< readable, or a connection to accept
    Write = 0x002,    ///< writable, or connected
    Except = 0x004,   ///< urgent data, or a failed connect
    Timeout = 0x008,  ///< named in dumps only
    Dealing = 0x010,  ///< named in dumps only
    Delete = 0x020,   ///< internal: the registration ends with the current dispatch
    Protect = 0x800   ///< only the owner may change or remove the registration
};
}  // namespace EventMask

/// What arrived for a socket, as the dumps name it.
enum : unsigned {
    VL_NOPOLL = 0,
    VL_POLLIN = 0x001,
    VL_POLLPRI = 0x002,
    VL_POLLOUT = 0x004,
    VL_POLLERR = 0x008,
    VL_POLLHUP = 0x010,
    VL_POLLIN_TIMEOUT = 0x100,
    VL_POLLOUT_TIMEOUT = 0x200,
    VL_POLLDEL = 0x400
};

/// Address type codes, CSockAddr::GetType().
enum : unsigned { SOCKADDR_TYPE_IPV4 = 1, SOCKADDR_TYPE_IPV6 = 2, SOCKADDR_TYPE_STORAGE = 3 };

/// Socket type codes, CSock::GetType().
enum : unsigned {
    SOCK_TYPE_STREAM = 1,
    SOCK_TYPE_DGRAM = 2,
    SOCK_TYPE_SSL_STREAM = 3,
    SOCK_TYPE_SIMULATOR = 4,
    SOCK_TYPE_ACCEPTOR = 6,
    SOCK_TYPE_UNKNOWN = 7
};

/// Types of the messages that tools send; info is 0 unless it says otherwise.
enum : unsigned {
    NOTIFY_STREAM_EXCEPTION = 2,  ///< the socket of a sender, or a callback of a receiver, has failed
    NOTIFY_BUFFER_FREE = 4,       ///< a sender has the wanted room; info: free bytes
    NOTIFY_RECEIVER_CLOSED = 5,   ///< the receiver has been closed
    NOTIFY_FILE_WRITABLE = 6,     ///< a write that took less than it was given may be tried again
    NOTIFY_FILE_READABLE = 7,     ///< a read that gave less than was asked for may be tried again
    NOTIFY_FILE_ERROR = 8,  ///< a file's device failed, or a call had bad arguments; ends both its waits
    NOTIFY_SEND_FINISH = 9  ///< a sender has nothing queued any more
};

}  // namespace Veltro::Ravelo
