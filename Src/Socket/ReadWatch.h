#pragma once

namespace Veltro::Ravelo {

/// What a thread's reads leave in one socket: the one whose callback it is in. The reactor asks when the
/// callback has returned; the socket classes tell as they read. Reads of other sockets are not noted.
class CReadWatch {
public:
    enum class ELeft {
        Unknown,  ///< nothing was read, or perhaps not all
        Nothing,  ///< the last read found less than it had room for
        Inside    ///< bytes that the system has handed over already wait in the socket object
    };

    /// The calling thread's; valid until the thread ends. begin() and left() are the thread's own too.
    static CReadWatch& ofThread();

    /// From now on the thread's reads of this descriptor count.
    void begin(int fd) {
        m_fd = fd;
        m_left = ELeft::Unknown;
    }
    /// What the last read since begin() has left.
    ELeft left() const { return m_left; }

    /// Tells what the calling thread's last read of a descriptor has left.
    static void note(int fd, ELeft left);

private:
    int m_fd = -1;
    ELeft m_left = ELeft::Unknown;
};

}  // namespace Veltro::Ravelo
