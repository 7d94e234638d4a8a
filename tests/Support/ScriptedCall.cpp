#include "ScriptedCall.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstdint>

#include "Socket/SocketApi.h"

namespace {

using Veltro::TestSupport::CScriptedCall;
using EFunction = CScriptedCall::EFunction;

thread_local CScriptedCall* t_script = nullptr;

/// The same with the socket error of a reset.
bool answerOfSocket(EFunction function, int* result) {
    if (!CScriptedCall::answer(function, result)) return false;
    Veltro::Ravelo::SocketApi::setLastError(Veltro::Ravelo::SocketApi::resetError());
    return true;
}

}  // namespace

namespace Veltro::TestSupport {

CScriptedCall::CScriptedCall(EFunction function, int result) : m_function(function), m_result(result) {
    t_script = this;
}

CScriptedCall::~CScriptedCall() {
    t_script = nullptr;
}

bool CScriptedCall::answer(EFunction function, int* result) {
    if (t_script == nullptr || t_script->m_function != function) return false;
    t_script->m_count += 1;
    *result = t_script->m_result;
    return true;
}

}  // namespace Veltro::TestSupport

// The linker leads calls of the functions here, and those of the __real_ names to the bodies.

// The name of SocketApi::waitOne() depends on what a 64-bit number is made of.
int realWaitOne(int fd, unsigned wanted, std::int64_t timeout_us,
                unsigned* ready) __asm__("__real_" RAVELO_WAIT_ONE);
int wrapWaitOne(int fd, unsigned wanted, std::int64_t timeout_us,
                unsigned* ready) __asm__("__wrap_" RAVELO_WAIT_ONE);

int wrapWaitOne(int fd, unsigned wanted, std::int64_t timeout_us, unsigned* ready) {
    int result = 0;
    if (!answerOfSocket(EFunction::WAIT_ONE, &result)) return realWaitOne(fd, wanted, timeout_us, ready);
    *ready = 0;
    return result;
}

extern "C" {

int __real_SSL_accept(SSL* ssl);
int __real_SSL_read(SSL* ssl, void* buffer, int length);
long __real_SSL_CTX_ctrl(SSL_CTX* ctx, int command, long number, void* value);
int __real__ZN6Veltro6Ravelo9SocketApi14setSendTimeoutEii(int fd, int timeout_ms);
int __real__ZN6Veltro6Ravelo9SocketApi11getSockNameEiP8sockaddrPi(int fd, sockaddr* address, int* length);

int __wrap_SSL_accept(SSL* ssl) {
    int result = 0;
    return CScriptedCall::answer(EFunction::SSL_ACCEPT, &result) ? result : __real_SSL_accept(ssl);
}

int __wrap_SSL_read(SSL* ssl, void* buffer, int length) {
    int result = 0;
    if (!CScriptedCall::answer(EFunction::SSL_READ, &result)) return __real_SSL_read(ssl, buffer, length);
    ERR_raise(ERR_LIB_SSL, ERR_R_INTERNAL_ERROR);
    return result;
}

long __wrap_SSL_CTX_ctrl(SSL_CTX* ctx, int command, long number, void* value) {
    int result = 0;
    if (command == SSL_CTRL_SET_GROUPS_LIST && CScriptedCall::answer(EFunction::SET_GROUPS, &result))
        return result;
    return __real_SSL_CTX_ctrl(ctx, command, number, value);
}

int __wrap__ZN6Veltro6Ravelo9SocketApi14setSendTimeoutEii(int fd, int timeout_ms) {
    int result = 0;
    if (answerOfSocket(EFunction::SET_SEND_TIMEOUT, &result)) return result;
    return __real__ZN6Veltro6Ravelo9SocketApi14setSendTimeoutEii(fd, timeout_ms);
}

int __wrap__ZN6Veltro6Ravelo9SocketApi11getSockNameEiP8sockaddrPi(int fd, sockaddr* address, int* length) {
    int result = 0;
    if (answerOfSocket(EFunction::GET_SOCK_NAME, &result)) return result;
    return __real__ZN6Veltro6Ravelo9SocketApi11getSockNameEiP8sockaddrPi(fd, address, length);
}

}  // extern "C"
