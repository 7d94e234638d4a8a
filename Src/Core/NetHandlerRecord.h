#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/NetHandler.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "Core/Event.h"

namespace Veltro::Ravelo {

inline constexpr std::uint16_t MAGIC_OPEN = 0x0101;
inline constexpr std::uint16_t MAGIC_CLOSED = 0x0202;

/// The type of the message that a closing handler sends to itself.
inline constexpr unsigned MESSAGE_TYPE_CLOSE = 12;

/// A handler's count of references, and whether it stands in its pool's table: in one word, so that a
/// reference can be taken only while it does.
class CReferences {
public:
    void add() { m_word.fetch_add(1); }
    /// Whether the last reference went.
    bool drop() { return count(m_word.fetch_sub(1)) == 1; }
    /// Takes a reference if the handler is bound; the table's own keeps it alive meanwhile.
    bool addIfBound() {
        std::int64_t word = m_word.load(std::memory_order_relaxed);
        while (word & BOUND) {
            if (m_word.compare_exchange_weak(word, word + 1)) return true;
        }
        return false;
    }
    /// Takes a reference if there is one already: the handler is not being closed.
    bool addIfHeld() {
        std::int64_t word = m_word.load(std::memory_order_relaxed);
        while (count(word) > 0) {
            if (m_word.compare_exchange_weak(word, word + 1)) return true;
        }
        return false;
    }
    void bind() { m_word.fetch_or(BOUND); }
    void unbind() { m_word.fetch_and(~BOUND); }
    std::int64_t count() const { return count(m_word.load()); }

private:
    static constexpr std::int64_t BOUND = std::int64_t{1} << 62;
    static std::int64_t count(std::int64_t word) { return word & ~BOUND; }

    std::atomic<std::int64_t> m_word{0};
};

/// The private state of a CNetHandler. It lives as long as the handler or a share in it, whichever is longer.
/// One line of the processor's cache.
struct alignas(CACHE_LINE) SNetHandlerRecord {
    std::atomic<std::uint16_t> __m_magic{MAGIC_OPEN};   ///< written under the mutex
    std::uint8_t closing PLINTH_GUARDED_BY(mutex) = 0;  ///< set once, before handle_close()
    SObjectEntry entry;                                 ///< in the pool's object table; its key is the id
    std::uint64_t pool_birth = 0;                       ///< which of the pools that had the number in turn
    Plinth::CMutex mutex;                               ///< guards closing, and serialises Close()
    std::atomic<std::int32_t> holders{1};               ///< the handler and the shares
    CReferences references;
    std::atomic<std::int64_t> sockets{0};
    std::atomic<std::int64_t> default_receiver{0};

    std::int64_t id() const { return entry.key; }
    /// Ends the handler's hold or a share's; the last one frees the record.
    void leave() {
        if (holders.fetch_sub(1) == 1) delete this;
    }

    /// A handler's record.
    static SNetHandlerRecord& of(const CNetHandler& handler) { return *handler.m_internal; }
    /// A handler's run-time class name, readable on every compiler.
    static std::string className(const CNetHandler* handler);
};

inline CNetHandler* CHandlerShare::takeHandler() const {
    return m_record != nullptr && m_record->references.addIfBound() ? m_handler : nullptr;
}

inline void CHandlerShare::changeSockets(std::int64_t by) const {
    if (m_record != nullptr) m_record->sockets.fetch_add(by);
}

}  // namespace Veltro::Ravelo
