// The ids of one thread pool's handlers and timers.
#pragma once

#include <Plinth/Mutex.h>

#include <cstdint>
#include <memory>

namespace Veltro::Ravelo {

/// Hands out ids and takes them back; each thread pool has one. Any thread may call any operation.
///
/// An id is ((sequence * 64) + pool number) * 16, the sequence going down from -100: negative, with the
/// pool's number in bits 4 to 9 and a reuse generation in the low 4 bits. A returned id rests until more than
/// 1024 ids wait, and differs from its last use in its generation when it comes out again.
class CIdPool {
public:
    /// @param pool_number 0 to 63.
    explicit CIdPool(unsigned pool_number);
    CIdPool(const CIdPool&) = delete;
    CIdPool& operator=(const CIdPool&) = delete;

    /// The oldest returned id if more than 1024 wait, else a fresh one. Once the sequence is used up one line
    /// is logged and the id, no longer negative, is returned all the same.
    std::int64_t GetId();

    /// Takes an id back. Once 204800 ids wait, or when there is no memory for more, the id is dropped and
    /// never used again.
    void PutId(std::int64_t id);

private:
    friend class CIdPoolTestAccess;

    /// The numbers that the overflow line shows.
    struct SState {
        std::uint32_t m_max_pool_size = 0;  ///< ids that the ring has room for
        std::uint32_t m_read_ptr = 0;
        std::uint32_t m_write_ptr = 0;
        std::uint32_t m_pool_size = 0;  ///< ids waiting
        std::int64_t m_min_id = -100;   ///< the next fresh sequence value
    };

    std::int64_t takeReturnedId() PLINTH_REQUIRES(m_mutex);
    std::int64_t makeFreshId() PLINTH_REQUIRES(m_mutex);
    bool growRing() PLINTH_REQUIRES(m_mutex);

    Plinth::CMutex m_mutex;  ///< guards the ring and its state
    SState m_state PLINTH_GUARDED_BY(m_mutex);
    std::unique_ptr<std::int64_t[]> m_ring PLINTH_GUARDED_BY(m_mutex);  ///< returned ids
    const std::uint32_t m_pool_number;
};

}  // namespace Veltro::Ravelo
