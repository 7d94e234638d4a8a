#include "Socket/SockOption.h"

#include <Ravelo/Sock.h>

#include "Log.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {
/// Logs why a call failed; -1.
int fail(const CSock& sock, const char* function, const char* call) {
    const int error = SocketApi::lastError();
    RAVELO_LOG_OF(&sock, Plinth::LOG_LEVEL_ERROR, "%s : %s failed! fd[%d], error:%d, %s\n", function, call,
                  sock.GetHandle(), error, SocketApi::errorText(error).data());
    return -1;
}
}  // namespace

int setIntOption(const CSock& sock, const char* function, int level, int name, int value) {
    if (SocketApi::setOption(sock.GetHandle(), level, name, value) == 0) return 0;
    return fail(sock, function, "setsockopt");
}

int getIntOption(const CSock& sock, const char* function, int level, int name) {
    int value = 0;
    if (SocketApi::getOption(sock.GetHandle(), level, name, &value) == 0) return value;
    return fail(sock, function, "getsockopt");
}

}  // namespace Veltro::Ravelo
