#include "IdPool.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Log.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::uint32_t INITIAL_RING_SIZE = 2048;
constexpr std::uint32_t GREATEST_RING_SIZE = 204800;
constexpr std::uint32_t QUARANTINE_SIZE = 1024;
constexpr std::int64_t POOL_COUNT = 64;
constexpr std::int64_t GENERATION_COUNT = 16;

}  // namespace

CIdPool::CIdPool(unsigned pool_number)
    : m_ring(new (std::nothrow) std::int64_t[INITIAL_RING_SIZE]()), m_pool_number(pool_number) {
    if (m_ring) m_state.m_max_pool_size = INITIAL_RING_SIZE;
}

std::int64_t CIdPool::GetId() {
    std::int64_t id = 0;
    SState state;
    {
        Plinth::CLockGuard guard(m_mutex);
        id = m_state.m_pool_size > QUARANTINE_SIZE ? takeReturnedId() : makeFreshId();
        if (id >= 0) state = m_state;
    }
    if (id >= 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "ID_Pool has overflowed! get unexpected ret:[%jd], idpool state(m_min_id:%jd, "
                        "m_max_pool_size:%u, m_pool_size:%u, m_read_ptr:%u, m_write_ptr:%u)\n",
                        static_cast<std::intmax_t>(id), static_cast<std::intmax_t>(state.m_min_id),
                        state.m_max_pool_size, state.m_pool_size, state.m_read_ptr, state.m_write_ptr);
    }
    return id;
}

std::int64_t CIdPool::takeReturnedId() {
    const std::int64_t id = std::exchange(m_ring[m_state.m_read_ptr], 0);
    m_state.m_read_ptr = (m_state.m_read_ptr + 1) % m_state.m_max_pool_size;
    --m_state.m_pool_size;
    constexpr std::int64_t mask = GENERATION_COUNT - 1;
    return (id & ~mask) | ((id + 1) & mask);
}

std::int64_t CIdPool::makeFreshId() {
    return ((m_state.m_min_id-- * POOL_COUNT) + m_pool_number) * GENERATION_COUNT;
}

void CIdPool::PutId(std::int64_t id) {
    Plinth::CLockGuard guard(m_mutex);
    if (m_state.m_pool_size == m_state.m_max_pool_size && !growRing()) return;
    m_ring[m_state.m_write_ptr] = id;
    m_state.m_write_ptr = (m_state.m_write_ptr + 1) % m_state.m_max_pool_size;
    ++m_state.m_pool_size;
}

/// Makes room in a full ring; the ids in it move to the new ring's start, oldest first.
bool CIdPool::growRing() {
    const std::uint32_t old_size = m_state.m_max_pool_size;
    if (old_size >= GREATEST_RING_SIZE) return false;
    const std::uint32_t new_size = std::clamp(old_size * 2, INITIAL_RING_SIZE, GREATEST_RING_SIZE);
    std::unique_ptr<std::int64_t[]> new_ring(new (std::nothrow) std::int64_t[new_size]());
    if (!new_ring) return false;
    if (old_size > 0) {
        const std::int64_t* const ring = m_ring.get();
        std::rotate_copy(ring, ring + m_state.m_read_ptr, ring + old_size, new_ring.get());
    }
    m_ring = std::move(new_ring);
    m_state.m_read_ptr = 0;
    m_state.m_write_ptr = old_size;
    m_state.m_max_pool_size = new_size;
    return true;
}

}  // namespace Veltro::Ravelo
