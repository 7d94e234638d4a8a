#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

class CSockAddr;

/// Base of every socket object: owns one system socket, knows its type and whether it is to block.
///
/// Not locked: one object is used by one thread at a time, and no operation blocks unless it says so. A
/// failure is logged with the system's error and text, which stay readable as the calling thread's socket
/// error.
class RAVELO_API CSock {
public:
    /// No socket, SOCK_TYPE_UNKNOWN, non-blocking.
    CSock();
    /// Copies name the same system socket, and each closes it in the end: the second one in vain, with a log
    /// line. To hand a socket over, use Detach() and Attach().
    CSock(const CSock& other);
    CSock& operator=(const CSock& other);
    /// Closes the socket.
    virtual ~CSock();

    /// The system's socket, or -1. Stays the object's.
    int GetHandle() const;
    /// A SOCK_TYPE_ code.
    unsigned int GetType() const;
    /// Whether there is a socket.
    bool IsValid() const;
    /// Whether the object's sockets are to block.
    bool GetBlockOpt() const;

    /// Takes a socket over and applies the blocking option to it.
    /// @return 0; -1 without taking it if there is a socket already; -1 also if the option could not be
    /// applied: then the socket is taken all the same.
    int Attach(int fd);
    /// Gives the socket to the caller. @return it, or -1 if there was none.
    int Detach();
    /// Closes the socket. @return 0; -1 if there is none or the system refused: there is none afterwards.
    int Close();
    /// Says whether this object's sockets block: the present one and those to come. Non-blocking at the
    /// start.
    void SetBlockOpt(bool block);
    /// Fills an address with the socket's own endpoint.
    /// @param addr a CSockAddrIPv4 or CSockAddrIPv6 for a socket of its family, or a CSockAddrStorage.
    /// @return 0, or -1 if the system refused or the address is of another family.
    int GetLocalAddr(CSockAddr* addr);
    /// As GetLocalAddr(), of the peer's endpoint.
    int GetRemoteAddr(CSockAddr* addr);

protected:
    CSock(int fd, unsigned int type);
    /// Applies the blocking option to the socket. @return 0, also without a socket, or -1.
    int set_block_opt();

    int m_fd;
    unsigned int m_type;
    bool m_block_opt;

private:
    friend class CSockAcceptor;  // gives accepted sockets to streams
};

}  // namespace Veltro::Ravelo
