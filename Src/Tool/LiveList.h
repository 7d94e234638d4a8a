// The tools that live at the moment, so that an operator can count what they do.
#pragma once

#include <Plinth/Mutex.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Veltro::Ravelo {

/// All objects of one kind, and the sum of what those did that have gone. An object enters once and leaves
/// once; what it does in between costs the list nothing.
///
/// In PARTS of equal size with a lock each, so that who enters or leaves waits, while somebody reads, for a
/// copy of one part only: some microseconds with thousands of objects. Reading takes no other lock.
///
/// @tparam T has a type SFigures, plain numbers with `void add(const SFigures&)`, and `SFigures figures()
/// const`, which reads without a lock and does not throw.
template <typename T>
class TLiveList {
    struct SPart;

public:
    using SFigures = typename T::SFigures;
    static constexpr std::size_t PARTS = 64;

    /// An object's place in the list. The object's last member, so that it leaves before anything else goes.
    class CEntry {
    public:
        CEntry() = default;
        ~CEntry() {
            if (m_part != nullptr) m_part->leave(*this);
        }
        CEntry(const CEntry&) = delete;
        CEntry& operator=(const CEntry&) = delete;
        /// Once; the object is complete by now.
        void enter(TLiveList& list, const T& object) {
            m_object = &object;
            m_part = &list.m_parts[list.m_entered.fetch_add(1, std::memory_order_relaxed) % PARTS];
            m_part->enter(*this);
        }

    private:
        friend class TLiveList;
        SPart* m_part = nullptr;
        const T* m_object = nullptr;
        CEntry* m_previous = nullptr;
        CEntry* m_next = nullptr;
    };

    struct SSnapshot {
        SFigures gone{};  ///< the sum over those that have gone
        std::uint64_t gone_count = 0;
        std::vector<SFigures> living;
    };

    /// What all have done so far; each object counts once. Any thread. May throw std::bad_alloc.
    SSnapshot snapshot() {
        SSnapshot shot;
        for (SPart& part : m_parts) {
            // Room is made while nobody waits.
            while (const std::size_t wanted = part.copyTo(shot)) {
                shot.living.reserve(std::max(wanted, shot.living.capacity() * 2));
            }
        }
        return shot;
    }

private:
    struct alignas(64) SPart {
        Plinth::CMutex mutex;
        CEntry* head PLINTH_GUARDED_BY(mutex) = nullptr;
        std::size_t size PLINTH_GUARDED_BY(mutex) = 0;
        SFigures gone PLINTH_GUARDED_BY(mutex){};
        std::uint64_t gone_count PLINTH_GUARDED_BY(mutex) = 0;

        void enter(CEntry& entry) {
            Plinth::CLockGuard guard(mutex);
            entry.m_next = head;
            if (head != nullptr) head->m_previous = &entry;
            head = &entry;
            ++size;
        }
        void leave(CEntry& entry) {
            Plinth::CLockGuard guard(mutex);
            (entry.m_previous != nullptr ? entry.m_previous->m_next : head) = entry.m_next;
            if (entry.m_next != nullptr) entry.m_next->m_previous = entry.m_previous;
            --size;
            gone.add(entry.m_object->figures());
            ++gone_count;
        }
        /// @return 0 if there was room for all, else what is needed, and nothing was copied.
        std::size_t copyTo(SSnapshot& shot) {
            Plinth::CLockGuard guard(mutex);
            const std::size_t wanted = shot.living.size() + size;
            if (wanted > shot.living.capacity()) return wanted;
            for (const CEntry* entry = head; entry != nullptr; entry = entry->m_next) {
                shot.living.push_back(entry->m_object->figures());
            }
            shot.gone.add(gone);
            shot.gone_count += gone_count;
            return 0;
        }
    };

    std::atomic<std::size_t> m_entered{0};
    std::array<SPart, PARTS> m_parts{};
};

}  // namespace Veltro::Ravelo
