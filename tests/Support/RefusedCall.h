// A system call that fails where no test can make the system refuse it. Needs the program to be linked by
// ravelo_refuse_calls().
#pragma once

namespace Veltro::TestSupport {

/// While it lives, every call of one of SocketApi's functions fails with "invalid argument". One at a time.
class CRefusedCall {
public:
    enum class ECall { None, CreateDatagram, Listen };

    explicit CRefusedCall(ECall call);
    /// Refuses one socket option.
    CRefusedCall(int level, int name);
    ~CRefusedCall();
    CRefusedCall(const CRefusedCall&) = delete;
    CRefusedCall& operator=(const CRefusedCall&) = delete;
};

}  // namespace Veltro::TestSupport
