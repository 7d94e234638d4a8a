#pragma once

#include <Plinth/Mutex.h>

#include <array>
#include <atomic>
#include <cstddef>

struct ssl_ctx_st;

namespace Veltro::Ravelo {

/// The keys that DTLS servers seal their session tickets with: one block for the whole process, so that a
/// ticket of one server object resumes at the next.
///
/// Drawn once, then only read. Any thread may call.
class CDtlsTicketKeys {
public:
    /// The process's block.
    static CDtlsTicketKeys& shared();

    CDtlsTicketKeys() = default;
    CDtlsTicketKeys(const CDtlsTicketKeys&) = delete;
    CDtlsTicketKeys& operator=(const CDtlsTicketKeys&) = delete;

    /// Draws the keys at random, unless they are there. @return 0, or -1 after a log line.
    int Init();
    /// Gives a server's context the keys. @return 0, or -1 if there are none or the context refuses them.
    int Install(ssl_ctx_st* ctx) const;
    /// Bytes of the block; 0 before Init() has succeeded.
    std::size_t Size() const { return m_size.load(std::memory_order_acquire); }

private:
    static constexpr std::size_t MAX_SIZE_BYTES = 256;

    Plinth::CMutex m_mutex;                               // one Init() at a time
    std::array<unsigned char, MAX_SIZE_BYTES> m_block{};  // written before m_size is, then never again
    std::atomic<std::size_t> m_size{0};
};

}  // namespace Veltro::Ravelo
