#include "RefusedCall.h"

#include <atomic>

#include "Socket/SocketApi.h"

using Veltro::TestSupport::CRefusedCall;

namespace {

std::atomic<CRefusedCall::ECall> s_refused{CRefusedCall::ECall::None};
std::atomic<bool> s_refuses_option{false};
std::atomic<int> s_level{0};
std::atomic<int> s_name{0};

bool refusesOption(int level, int name) {
    return s_refuses_option && level == s_level && name == s_name;
}

int refuse() {
    Veltro::Ravelo::SocketApi::setLastError(Veltro::Ravelo::SocketApi::invalidArgumentError());
    return -1;
}

}  // namespace

namespace Veltro::TestSupport {

CRefusedCall::CRefusedCall(ECall call) {
    s_refused = call;
}

CRefusedCall::CRefusedCall(int level, int name) {
    s_level = level;
    s_name = name;
    s_refuses_option = true;
}

CRefusedCall::~CRefusedCall() {
    s_refused = ECall::None;
    s_refuses_option = false;
}

}  // namespace Veltro::TestSupport

// The linker leads the library's calls here, and those of the __real_ names to the bodies.

extern "C" {

int __real__ZN6Veltro6Ravelo9SocketApi6listenEii(int fd, int backlog);
int __real__ZN6Veltro6Ravelo9SocketApi14createDatagramEi(int family);
int __real__ZN6Veltro6Ravelo9SocketApi9setOptionEiiii(int fd, int level, int name, int value);
int __real__ZN6Veltro6Ravelo9SocketApi9setOptionEiiiPKvi(int fd, int level, int name, const void* value,
                                                         int length);

int __wrap__ZN6Veltro6Ravelo9SocketApi6listenEii(int fd, int backlog) {
    if (s_refused == CRefusedCall::ECall::Listen) return refuse();
    return __real__ZN6Veltro6Ravelo9SocketApi6listenEii(fd, backlog);
}

int __wrap__ZN6Veltro6Ravelo9SocketApi14createDatagramEi(int family) {
    if (s_refused == CRefusedCall::ECall::CreateDatagram) return refuse();
    return __real__ZN6Veltro6Ravelo9SocketApi14createDatagramEi(family);
}

int __wrap__ZN6Veltro6Ravelo9SocketApi9setOptionEiiii(int fd, int level, int name, int value) {
    if (refusesOption(level, name)) return refuse();
    return __real__ZN6Veltro6Ravelo9SocketApi9setOptionEiiii(fd, level, name, value);
}

int __wrap__ZN6Veltro6Ravelo9SocketApi9setOptionEiiiPKvi(int fd, int level, int name, const void* value,
                                                         int length) {
    if (refusesOption(level, name)) return refuse();
    return __real__ZN6Veltro6Ravelo9SocketApi9setOptionEiiiPKvi(fd, level, name, value, length);
}

}  // extern "C"
