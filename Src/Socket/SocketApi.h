// The system's socket calls under one set of names; bodies in SocketApi_linux.cpp and SocketApi_win.cpp.
#pragma once

#include <Ravelo/Defs.h>

#include <array>
#include <cstdint>

#include "Socket/SocketApi_system.h"

namespace Veltro::Ravelo::SocketApi {

/// Starts the system's socket layer; 0, or -1 after a line on standard error.
int startup();
/// Ends what startup() began.
void cleanup();

/// Creates a socket that child processes do not inherit and that raises no signal; -1 on failure.
int create(int family, int type, int protocol);
/// Creates a datagram socket that receives from the groups it has joined only, and whose receiving does not
/// fail because an earlier datagram found a closed port, except where it is connected on Linux.
int createDatagram(int family);
int close(int fd);
int setNonBlocking(int fd, bool non_blocking);
int bind(int fd, const sockaddr* addr, int length);
int listen(int fd, int backlog);
int connect(int fd, const sockaddr* addr, int length);
/// Takes the default destination off a datagram socket of a family; its port stays. One that has no
/// destination succeeds, too.
int disconnect(int fd, int family);
/// The new socket, non-blocking or blocking as asked, or -1. addr may be null; *length is its size in bytes,
/// before and after.
int accept(int fd, sockaddr* addr, int* length, bool non_blocking);
int getSockName(int fd, sockaddr* addr, int* length);
int getPeerName(int fd, sockaddr* addr, int* length);

/// Each sends or receives once: bytes moved, or -1 with lastError(). Never raises SIGPIPE.
int send(int fd, const char* data, unsigned length);
/// One gathered call, which on a datagram socket is one datagram. Of more elements than the system takes at
/// once a stream sends the first ones; a datagram socket fails. A negative count is an invalid argument.
int sendV(int fd, const iovec* elements, int count);
/// Tells CReadWatch whether something may be left, where the multiplexer makes use of it.
int recv(int fd, char* buffer, unsigned length);
/// The same to, and from, an address. One without a family is refused. *addr_length is the size of *addr in
/// bytes, before and after.
int sendTo(int fd, const char* data, unsigned length, const sockaddr* addr, int addr_length);
int recvFrom(int fd, char* buffer, unsigned length, sockaddr* addr, int* addr_length);

/// The most elements of one gathered call that every system takes.
constexpr int MAX_ELEMENTS = 1024;

/// An option whose value is an int; the result is the system's.
int setOption(int fd, int level, int name, int value);
/// An option of any other type. @param length bytes at value.
int setOption(int fd, int level, int name, const void* value, int length);
int getOption(int fd, int level, int name, int* value);
/// How long a blocking receive, or send, of a socket may take, in milliseconds; 0 or less for ever.
int setReceiveTimeout(int fd, int timeout_ms);
int setSendTimeout(int fd, int timeout_ms);

/// Lets a datagram socket of a family find out what the path carries: a longer datagram then fails instead of
/// travelling in pieces. The result is the system's.
int discoverPathMtu(int fd, int family);
/// The bytes that the path of a connected socket of a family carries in one packet, headers included; -1 if
/// the system does not know.
int pathMtu(int fd, int family);

/// The calling thread's last socket error: errno, or WSAGetLastError().
int lastError();
void setLastError(int error);
/// Would block, interrupted, or 11, the try-again code of other platforms.
bool isTryAgain(int error);
bool isInterrupted(int error);
/// A non-blocking connect is under way.
bool isConnecting(int error);
bool isReset(int error);
/// A datagram was longer than the path carries or, on Windows, than the buffer for it.
bool isTooLong(int error);
/// No descriptors or memory left for a new socket (accept must not be tried again at once).
bool isOutOfDescriptors(int error);
/// The number of "connection reset by peer" on this platform.
int resetError();
/// The number of "invalid argument" on this platform.
int invalidArgumentError();
/// The number of "no buffer space" on this platform.
int noBufferError();
/// The number of "timed out" on this platform.
int timedOutError();

/// The system's text for a socket error, without an end of line; the number where the system knows no text.
/// Use as errorText(error).data() within one expression.
std::array<char, 512> errorText(int error);

/// The text for a result of getaddrinfo() or getnameinfo(), on the same terms.
std::array<char, 512> resolverErrorText(int result);
/// The number of "the caller's buffer is too small" on this platform.
int bufferTooSmallError();
/// The index of a network interface by its name; 0 if there is none.
unsigned interfaceIndex(const char* name);

/// What waitOne() waits for and reports; bits.
enum : unsigned { WAIT_READ = 1, WAIT_WRITE = 2, WAIT_EXCEPT = 4 };
/// Waits on one socket, of any descriptor number, for at most timeout_us microseconds (negative counts as 0).
/// @param ready receives the bits that are ready. Urgent data or, on Windows, a failed connect is an
/// exception; an error or a hang-up makes the socket readable and writable.
/// @return 1 ready, 0 timed out, -1 failed with lastError(), also for a descriptor that is no socket.
int waitOne(int fd, unsigned wanted, std::int64_t timeout_us, unsigned* ready);

}  // namespace Veltro::Ravelo::SocketApi
