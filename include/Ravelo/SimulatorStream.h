#pragma once

#include <Ravelo/Sock.h>

namespace Veltro::Ravelo {

class CSockStream;

/// A slow link on purpose: lets through to a stream at most a set number of bytes in each period of one
/// second, and says "try again later" to the rest.
///
/// It shares the stream's socket, so that a handler registers the one or the other, and neither owns nor
/// closes it: leave Close(), Attach() and SetBlockOpt() to the stream. What is received is received from the
/// stream. Like every socket object it is used by one thread at a time, together with its stream.
class RAVELO_API CSimulatorStream : public CSock {
public:
    /// No stream, a bandwidth of 0, and a period that begins now.
    CSimulatorStream();
    /// Leaves the shared socket open.
    ~CSimulatorStream() override;
    CSimulatorStream(const CSimulatorStream&) = delete;
    CSimulatorStream& operator=(const CSimulatorStream&) = delete;

    /// Stands in front of a stream and shares its socket. Call it again when the stream has got another one.
    /// @param real must outlive its use here; stays the caller's. Null takes the stream away: nothing can be
    /// sent from then on. As long as no stream was ever set, bytes are counted as sent and go nowhere.
    void SetRealSocket(CSockStream* real);
    /// Sets what passes in each second, also in the current one.
    /// @param mbit in units of 2^20 bits, counted in 32 bits: 0 to 4095, and 4096 is 0 again.
    /// @return 0; -1 if there was no memory for the object.
    int SetBandWidth(unsigned int mbit);

    /// Sends once, as much as the period has left.
    /// @param buf, len as for CSockStream::Send().
    /// @return bytes let through, possibly fewer than len; 0 try again, or the period is used up; -1 failed.
    int Send(const char* buf, unsigned int len);
    /// Sends the elements of a list one by one, until one is not taken whole. An empty element is skipped.
    /// @param vec not null; it and its data are only read. @param count elements; fewer than 1 send nothing.
    /// @return bytes let through; -1 failed, whatever was let through before.
    int WriteV(const iovec* vec, int count);

private:
    struct SInternal;
    SInternal* m_internal;
};

}  // namespace Veltro::Ravelo
