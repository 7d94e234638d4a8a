#pragma once

#include <Plinth/Mutex.h>

#include "Core/WinPipe.h"

namespace Veltro::Ravelo {

/// Ends a multiplexer's wait: at most one byte is in its pipe, however often it is woken. Any thread may
/// wake; the waiting thread drains.
class CWakePipe {
public:
    /// 0, or -1 when the system gives no pipe.
    int Create() { return m_pipe.Create(false); }
    /// What the wait has to watch for reading.
    int readFd() const { return m_pipe.readFd(); }
    void wake();
    /// Takes the byte out; called when the pipe is readable.
    void drain();

private:
    Plinth::CMutex m_mutex;  // guards the count of bytes on their way
    int m_pending_bytes PLINTH_GUARDED_BY(m_mutex) = 0;
    CWINPipe m_pipe;
};

}  // namespace Veltro::Ravelo
