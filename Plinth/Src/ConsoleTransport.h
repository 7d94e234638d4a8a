// How operators reach the console host: mirrored in ConsoleTransport_linux.cpp and ConsoleTransport_win.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Veltro::Plinth::ConsoleTransport {

/// One end of a connection, or a listener; NONE is none.
using Handle = std::intptr_t;
inline constexpr Handle NONE = -1;

/// What to wait for on a handle, and what came of it.
struct SWait {
    Handle handle;
    bool wants_read;
    bool wants_write;
    bool can_read;  ///< also when the other end has gone
    bool can_write;
};

struct SListener {
    Handle handle = NONE;
    std::string path;    ///< what was made in the file system
    Handle file = NONE;  ///< keeps the file of port and token; unused where there is none
    std::string token;   ///< what an operator must say first; empty when the system tells who he is
};

/// A pair of ends with which another thread ends a wait.
struct SWaker {
    Handle waiting_end = NONE;
    Handle waking_end = NONE;
};

/// The system's socket calls must be started before and stopped after all others, once for each start.
bool startup();
void cleanup();

/// The folder for consoles of this user, and the number of this process.
std::string defaultFolder();
unsigned long processId();
/// Makes a folder that only the user can use, or checks that it is one.
bool makePrivateFolder(const std::string& folder);

/// Listens at a path; replaces what a former process left there. False when it cannot, with the last error
/// set.
bool listen(const std::string& path, SListener& listener);
void closeListener(SListener& listener);
/// The next operator, not blocking; NONE when there is none, or he is another user.
Handle accept(const SListener& listener);
/// Attaches to a path; says the token where one is asked for. NONE when it cannot, with the reason.
Handle attach(const char* path, std::string& reason);

bool openWaker(SWaker& waker);
void closeWaker(SWaker& waker);
void wake(const SWaker& waker);
void drain(const SWaker& waker);

/// Single calls: bytes, 0 to try again, -1 when the other end has gone.
int receive(Handle handle, char* bytes, std::size_t size);
int send(Handle handle, const char* bytes, std::size_t length);
void close(Handle handle);

/// Waits until one of the handles is ready; timeout_ms negative without limit.
void wait(SWait* waits, std::size_t count, int timeout_ms);

}  // namespace Veltro::Plinth::ConsoleTransport
