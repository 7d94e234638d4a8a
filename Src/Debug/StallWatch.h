// Reports callbacks that do not come to an end.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "Core/CurrentObject.h"

namespace Veltro::Ravelo {

/// Looks at every reactor thread from time to time and reports whose callback has run too long, each once.
///
/// Callbacks are not timed by their own threads, which would cost each of them two looks at the clock: one
/// that stands at two looks has run at least as long as lies between them. One thread at a time may use it.
class CStallWatch {
public:
    /// See CNetThread::SetStallReport. Any thread may call.
    static void setLimit(std::uint32_t limit_ms);

    /// One look. @param now_ms a steady clock's.
    void look(std::uint64_t now_ms);

private:
    /// The callback that a thread was in at an earlier look.
    struct SSeen {
        std::uint64_t callbacks = 0;
        std::uint64_t since_ms = 0;
        std::uint64_t look = 0;  ///< the last look that found the thread
        bool reported = false;
    };
    struct SStall {
        unsigned long thread_id;
        CCurrentObject::SModule module;
        std::uint64_t time_ms;
    };

    std::vector<SStall> findStalls(std::uint64_t now_ms, std::uint32_t limit_ms);
    bool mayLog(std::uint64_t now_ms);
    static void report(const SStall& stall);

    std::map<unsigned long, SSeen> m_seen;  ///< by thread
    std::uint64_t m_looks = 0;
    std::uint64_t m_minute_from_ms = 0;
    int m_lines = 0;  ///< in that minute
};

}  // namespace Veltro::Ravelo
