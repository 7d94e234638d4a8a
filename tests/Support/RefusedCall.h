// A system call that fails where no test can make the system refuse it. Needs the program to be linked by
// ravelo_refuse_calls().
#pragma once

namespace Veltro::TestSupport {

/// While it lives, every call of SocketApi::listen, or of SocketApi::setOption for one option, fails with
/// "invalid argument". One at a time.
class CRefusedCall {
public:
    /// Refuses to listen.
    CRefusedCall();
    /// Refuses an option whose value is an int.
    CRefusedCall(int level, int name);
    ~CRefusedCall();
    CRefusedCall(const CRefusedCall&) = delete;
    CRefusedCall& operator=(const CRefusedCall&) = delete;
};

}  // namespace Veltro::TestSupport
