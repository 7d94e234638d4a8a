#pragma once

namespace Veltro::Ravelo {

/// A connected pair of sockets that stands in for a pipe: one thread writes a byte to end another's wait.
///
/// The two static operations work on any connected socket. The object's thread safety is its owner's
/// business.
class CWINPipe {
public:
    CWINPipe() = default;
    ~CWINPipe() { Close(); }
    CWINPipe(const CWINPipe&) = delete;
    CWINPipe& operator=(const CWINPipe&) = delete;

    /// Makes the pair. @param block whether both ends block. @return 0, or -1 with nothing left open.
    int Create(bool block);
    /// Closes both ends; harmless when there are none.
    void Close();

    int readFd() const { return m_read_fd; }
    int writeFd() const { return m_write_fd; }

    /// Bytes read, 0 for "try again", -1 when the other end has gone or reading failed.
    static int Read(int fd, char* buffer, int length);
    /// Bytes written, 0 for "try again", -1 when writing failed.
    static int Write(int fd, const char* buffer, int length);

private:
    int m_read_fd = -1;
    int m_write_fd = -1;
};

}  // namespace Veltro::Ravelo
