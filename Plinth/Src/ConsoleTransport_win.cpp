// The default of 64 sockets per set is fewer than there may be operators.
#define FD_SETSIZE 256
#include <winsock2.h>

#include <windows.h>

#include <bcrypt.h>
#include <sddl.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "ConsoleTransport.h"
#include "Utf8_win.h"

namespace Veltro::Plinth::ConsoleTransport {

namespace {

SOCKET socketOf(Handle handle) {
    return static_cast<SOCKET>(handle);
}

Handle handleOf(SOCKET socket) {
    return socket == INVALID_SOCKET ? NONE : static_cast<Handle>(socket);
}

HANDLE fileOf(Handle handle) {
    return reinterpret_cast<HANDLE>(handle);
}

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

bool setNonBlocking(SOCKET socket) {
    u_long on = 1;
    return ::ioctlsocket(socket, static_cast<long>(FIONBIO), &on) == 0;
}

/// The port of a socket that has one.
unsigned short portOf(SOCKET socket) {
    sockaddr_in address{};
    int size = sizeof address;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
    return ntohs(address.sin_port);
}

/// Access for the process's own user and nobody else, for a file or a folder that is made.
class COwnerOnly {
public:
    COwnerOnly() {
        HANDLE token = nullptr;
        if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return;
        alignas(TOKEN_USER) char user[256];
        DWORD size = 0;
        wchar_t* sid = nullptr;
        if (GetTokenInformation(token, TokenUser, user, sizeof user, &size) &&
            ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &sid)) {
            const std::wstring text = std::wstring(L"D:P(A;OICI;FA;;;") + sid + L")";
            ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &m_descriptor,
                                                                 nullptr);
            LocalFree(sid);
        }
        CloseHandle(token);
        m_attributes = {sizeof m_attributes, m_descriptor, FALSE};
    }
    ~COwnerOnly() {
        if (m_descriptor != nullptr) LocalFree(m_descriptor);
    }
    COwnerOnly(const COwnerOnly&) = delete;
    COwnerOnly& operator=(const COwnerOnly&) = delete;

    /// Null when the system did not say who the user is: then nothing may be made.
    SECURITY_ATTRIBUTES* get() { return m_descriptor != nullptr ? &m_attributes : nullptr; }

private:
    PSECURITY_DESCRIPTOR m_descriptor = nullptr;
    SECURITY_ATTRIBUTES m_attributes{};
};

/// 256 random bits in hexadecimal; empty when the system has none.
std::string randomToken() {
    unsigned char bytes[32];
    if (BCryptGenRandom(nullptr, bytes, sizeof bytes, BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0) return {};
    std::string token;
    for (const unsigned char byte : bytes) {
        token += "0123456789abcdef"[byte >> 4];
        token += "0123456789abcdef"[byte & 15];
    }
    return token;
}

/// A listening socket that nobody else on the machine can share; INVALID_SOCKET when there is none.
SOCKET listenOnLoopback() {
    const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (socket == INVALID_SOCKET) return socket;
    const sockaddr_in address = loopback(0);
    const BOOL on = TRUE;
    ::setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on), sizeof on);
    if (setNonBlocking(socket) &&
        ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(socket, 16) == 0) {
        return socket;
    }
    ::closesocket(socket);
    return INVALID_SOCKET;
}

/// Writes port and token where only the user can read them. The file goes with its handle, and cannot be
/// replaced while it is open.
Handle writeFile(const std::string& path, unsigned short port, const std::string& token) {
    COwnerOnly owner_only;
    const auto wide = toWide(path.c_str());
    if (!wide || owner_only.get() == nullptr) return NONE;
    // A file that exists would keep its own access list.
    DeleteFileW(wide.get());
    const HANDLE file =
        CreateFileW(wide.get(), GENERIC_WRITE | DELETE, FILE_SHARE_READ, owner_only.get(), CREATE_NEW,
                    FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE) return NONE;
    const std::string text = std::to_string(port) + " " + token + "\n";
    DWORD written = 0;
    if (WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
        written == text.size()) {
        return reinterpret_cast<Handle>(file);
    }
    CloseHandle(file);
    return NONE;
}

/// Port and token out of a file; false when it is not there, not ours to read, or holds something else.
bool readFile(const char* path, unsigned short& port, std::string& token) {
    const auto wide = toWide(path);
    if (!wide) return false;
    const HANDLE file =
        CreateFileW(wide.get(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    char text[256] = "";
    DWORD length = 0;
    const bool is_read = ReadFile(file, text, sizeof text - 1, &length, nullptr);
    CloseHandle(file);
    char word[128] = "";
    if (!is_read || std::sscanf(text, "%hu %127s", &port, word) != 2) return false;
    token = word;
    return true;
}

std::string systemReason() {
    return "error " + std::to_string(GetLastError());
}

int resultOf(int transferred) {
    if (transferred > 0) return transferred;
    return transferred < 0 && WSAGetLastError() == WSAEWOULDBLOCK ? 0 : -1;
}

}  // namespace

bool startup() {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}

void cleanup() {
    WSACleanup();
}

std::string defaultFolder() {
    wchar_t wide[MAX_PATH];
    const DWORD length = GetEnvironmentVariableW(L"LOCALAPPDATA", wide, MAX_PATH);
    char folder[MAX_PATH * 3] = ".";
    if (length > 0 && length < MAX_PATH) {
        WideCharToMultiByte(CP_UTF8, 0, wide, -1, folder, sizeof folder, nullptr, nullptr);
    }
    return std::string(folder) + "\\ravelo-console";
}

unsigned long processId() {
    return GetCurrentProcessId();
}

bool makePrivateFolder(const std::string& folder) {
    COwnerOnly owner_only;
    const auto wide = toWide(folder.c_str());
    if (!wide || owner_only.get() == nullptr) return false;
    // What lies in it protects itself.
    return CreateDirectoryW(wide.get(), owner_only.get()) || GetLastError() == ERROR_ALREADY_EXISTS;
}

bool listen(const std::string& path, SListener& listener) {
    const SOCKET socket = listenOnLoopback();
    if (socket == INVALID_SOCKET) return false;
    listener.token = randomToken();
    if (!listener.token.empty()) listener.file = writeFile(path, portOf(socket), listener.token);
    if (listener.file == NONE) {
        const DWORD error = GetLastError();
        ::closesocket(socket);
        SetLastError(error);
        return false;
    }
    listener.handle = handleOf(socket);
    listener.path = path;
    return true;
}

void closeListener(SListener& listener) {
    if (listener.handle == NONE) return;
    CloseHandle(fileOf(listener.file));
    ::closesocket(socketOf(listener.handle));
    listener.file = NONE;
    listener.handle = NONE;
}

Handle accept(const SListener& listener) {
    const SOCKET socket = ::accept(socketOf(listener.handle), nullptr, nullptr);
    if (socket != INVALID_SOCKET && !setNonBlocking(socket)) {
        ::closesocket(socket);
        return NONE;
    }
    return handleOf(socket);
}

Handle attach(const char* path, std::string& reason) {
    unsigned short port = 0;
    std::string token;
    if (!readFile(path, port, token)) {
        reason = "no port and token there, " + systemReason();
        return NONE;
    }
    const sockaddr_in address = loopback(port);
    const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    token += '\n';
    if (socket != INVALID_SOCKET &&
        ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::send(socket, token.data(), static_cast<int>(token.size()), 0) == static_cast<int>(token.size())) {
        return handleOf(socket);
    }
    reason = systemReason();
    if (socket != INVALID_SOCKET) ::closesocket(socket);
    return NONE;
}

// A datagram socket that talks to itself.
bool openWaker(SWaker& waker) {
    const SOCKET socket = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (socket == INVALID_SOCKET) return false;
    sockaddr_in address = loopback(0);
    bool works = ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    address = loopback(portOf(socket));
    works = works && ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            setNonBlocking(socket);
    if (!works) {
        ::closesocket(socket);
        return false;
    }
    waker = {handleOf(socket), handleOf(socket)};
    return true;
}

void closeWaker(SWaker& waker) {
    if (waker.waiting_end != NONE) ::closesocket(socketOf(waker.waiting_end));
    waker = {};
}

void wake(const SWaker& waker) {
    ::send(socketOf(waker.waking_end), "w", 1, 0);
}

void drain(const SWaker& waker) {
    char bytes[64];
    while (::recv(socketOf(waker.waiting_end), bytes, sizeof bytes, 0) > 0) {
    }
}

int receive(Handle handle, char* bytes, std::size_t size) {
    return resultOf(::recv(socketOf(handle), bytes, static_cast<int>(size), 0));
}

int send(Handle handle, const char* bytes, std::size_t length) {
    // One call takes an int, and has no use for more than it can buffer.
    constexpr std::size_t MOST = 1 << 20;
    return resultOf(::send(socketOf(handle), bytes, static_cast<int>(length < MOST ? length : MOST), 0));
}

void close(Handle handle) {
    ::closesocket(socketOf(handle));
}

void wait(SWait* waits, std::size_t count, int timeout_ms) {
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    for (std::size_t i = 0; i < count; ++i) {
        if (waits[i].wants_read) FD_SET(socketOf(waits[i].handle), &readable);
        if (waits[i].wants_write) FD_SET(socketOf(waits[i].handle), &writable);
    }
    timeval limit = {timeout_ms / 1000, timeout_ms % 1000 * 1000};
    const int ready = ::select(0, &readable, &writable, nullptr, timeout_ms < 0 ? nullptr : &limit);
    for (std::size_t i = 0; i < count; ++i) {
        waits[i].can_read = ready > 0 && FD_ISSET(socketOf(waits[i].handle), &readable);
        waits[i].can_write = ready > 0 && FD_ISSET(socketOf(waits[i].handle), &writable);
    }
}

}  // namespace Veltro::Plinth::ConsoleTransport
