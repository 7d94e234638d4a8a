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

    /// From now on the calling thread's reads of this descriptor count.
    static void begin(int fd);
    /// Tells what the calling thread's last read of a descriptor has left.
    static void note(int fd, ELeft left);
    /// What the last read since begin() has left.
    static ELeft left();
};

}  // namespace Veltro::Ravelo
