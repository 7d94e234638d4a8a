#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ConsoleTransport.h"

namespace Veltro::Plinth::ConsoleTransport {

namespace {

int fdOf(Handle handle) {
    return static_cast<int>(handle);
}

/// Keeps the last error while a half-made socket is closed.
Handle abandon(int fd) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return NONE;
}

bool fillAddress(const char* path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path[0] == '\0' || std::strlen(path) >= sizeof address.sun_path) {
        errno = path[0] == '\0' ? ENOENT : ENAMETOOLONG;
        return false;
    }
    std::strcpy(address.sun_path, path);
    return true;
}

/// The user at the other end; false when the system does not say.
bool peerUser(int fd, uid_t& user) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
    user = peer.uid;
    return true;
}

/// Whether the other end is the process's own user, or the administrator.
bool isTrusted(int fd) {
    uid_t user = 0;
    return peerUser(fd, user) && (user == ::geteuid() || user == 0);
}

int openSocket(int flags) {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
}

/// Removes a socket that nobody listens on any more.
void removeAbandoned(const sockaddr_un& address) {
    struct stat status {};
    if (::lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) return;
    const int fd = openSocket(SOCK_NONBLOCK);
    if (fd < 0) return;
    const bool abandoned = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
                           errno == ECONNREFUSED;
    ::close(fd);
    if (abandoned) ::unlink(address.sun_path);
}

bool bindAndListen(int fd, const sockaddr_un& address) {
    // The socket's own mode is what its file gets: there is no moment at which others could connect.
    if (::fchmod(fd, S_IRUSR | S_IWUSR) != 0) return false;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
    if (::chmod(address.sun_path, S_IRUSR | S_IWUSR) == 0 && ::listen(fd, 16) == 0) return true;
    const int error = errno;
    ::unlink(address.sun_path);
    errno = error;
    return false;
}

int resultOf(ssize_t transferred) {
    if (transferred > 0) return static_cast<int>(transferred);
    const bool later = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    return transferred < 0 && later ? 0 : -1;
}

}  // namespace

bool startup() {
    return true;
}

void cleanup() {}

std::string defaultFolder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/ravelo-console";
    return "/tmp/ravelo-console-" + std::to_string(::geteuid());
}

unsigned long processId() {
    return static_cast<unsigned long>(::getpid());
}

bool makePrivateFolder(const std::string& folder) {
    if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) return false;
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0) return false;
    // Somebody else may have been first: the name is known to everybody.
    const bool own = S_ISDIR(status.st_mode) && status.st_uid == ::geteuid();
    if (own && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0) return true;
    errno = EPERM;
    return false;
}

bool listen(const std::string& path, SListener& listener) {
    sockaddr_un address{};
    if (!fillAddress(path.c_str(), address)) return false;
    removeAbandoned(address);
    const int fd = openSocket(SOCK_NONBLOCK);
    if (fd < 0) return false;
    if (!bindAndListen(fd, address)) {
        abandon(fd);
        return false;
    }
    listener.handle = fd;
    listener.path = path;
    listener.token.clear();
    return true;
}

void closeListener(SListener& listener) {
    if (listener.handle == NONE) return;
    ::unlink(listener.path.c_str());
    ::close(fdOf(listener.handle));
    listener.handle = NONE;
}

Handle accept(const SListener& listener) {
    const int fd = ::accept4(fdOf(listener.handle), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return NONE;
    return isTrusted(fd) ? fd : abandon(fd);
}

Handle attach(const char* path, std::string& reason) {
    sockaddr_un address{};
    const int fd = fillAddress(path, address) ? openSocket(0) : -1;
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        reason = std::strerror(errno);
        return fd < 0 ? NONE : abandon(fd);
    }
    // Who listens there may be anybody who was faster than the process that was meant.
    uid_t user = 0;
    const bool trusted = peerUser(fd, user) && (user == ::geteuid() || user == 0 || ::geteuid() == 0);
    if (trusted) return fd;
    reason = "another user listens there";
    return abandon(fd);
}

bool openWaker(SWaker& waker) {
    int ends[2];
    if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return false;
    waker = {ends[0], ends[1]};
    return true;
}

void closeWaker(SWaker& waker) {
    for (Handle* end : {&waker.waiting_end, &waker.waking_end}) {
        if (*end != NONE) ::close(fdOf(*end));
        *end = NONE;
    }
}

void wake(const SWaker& waker) {
    // A full pipe wakes as well.
    [[maybe_unused]] const ssize_t written = ::write(fdOf(waker.waking_end), "w", 1);
}

void drain(const SWaker& waker) {
    char bytes[64];
    while (::read(fdOf(waker.waiting_end), bytes, sizeof bytes) > 0) {
    }
}

int receive(Handle handle, char* bytes, std::size_t size) {
    return resultOf(::recv(fdOf(handle), bytes, size, 0));
}

int send(Handle handle, const char* bytes, std::size_t length) {
    return resultOf(::send(fdOf(handle), bytes, length, MSG_NOSIGNAL));
}

void close(Handle handle) {
    ::close(fdOf(handle));
}

void wait(SWait* waits, std::size_t count, int timeout_ms) {
    std::vector<pollfd> polled(count);
    for (std::size_t i = 0; i < count; ++i) {
        const int events = (waits[i].wants_read ? POLLIN : 0) | (waits[i].wants_write ? POLLOUT : 0);
        polled[i] = {fdOf(waits[i].handle), static_cast<short>(events), 0};
    }
    const int ready = ::poll(polled.data(), count, timeout_ms);
    for (std::size_t i = 0; i < count; ++i) {
        const int events = ready > 0 ? polled[i].revents : 0;
        const bool gone = (events & (POLLERR | POLLNVAL)) != 0 || (events & (POLLHUP | POLLIN)) == POLLHUP;
        waits[i].can_read = (events & POLLIN) != 0 || gone;
        waits[i].can_write = (events & POLLOUT) != 0;
    }
}

}  // namespace Veltro::Plinth::ConsoleTransport
