// A call below the TLS classes that comes to what a test says. Needs the program to be linked by
// ravelo_script_calls().
#pragma once

namespace Veltro::TestSupport {

/// While it lives, the calling thread's calls of one function are not made but fail, or come to a result
/// that they hardly ever have. One at a time on a thread.
class CScriptedCall {
public:
    enum class EFunction {
        SSL_ACCEPT,
        SSL_READ,          ///< leaves an error in OpenSSL's queue
        SET_GROUPS,        ///< the groups of a context
        WAIT_ONE,          ///< of SocketApi, as the ones below; finds nothing ready
        SET_SEND_TIMEOUT,  ///< the socket error is that of a reset, as of the others of SocketApi
        GET_SOCK_NAME,
    };

    CScriptedCall(EFunction function, int result);
    ~CScriptedCall();
    CScriptedCall(const CScriptedCall&) = delete;
    CScriptedCall& operator=(const CScriptedCall&) = delete;

    /// How many calls there were.
    int count() const { return m_count; }

    /// What a call of the calling thread comes to. @return false: it is to be made.
    static bool answer(EFunction function, int* result);

private:
    const EFunction m_function;
    const int m_result;
    int m_count = 0;
};

}  // namespace Veltro::TestSupport
