#pragma once

#include <Ravelo/NetHandler.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <typeinfo>

#include "Debug/CallbackTimes.h"
#include "Socket/ReadWatch.h"

namespace Veltro::Ravelo {

/// Which handler's callback each reactor thread is running, for the deadlock report and the dumps: the table
/// of thread modules.
///
/// A thread enters the table once and then only writes its own slots, so that a callback costs a few plain
/// stores.
class CCurrentObject {
public:
    /// What a thread runs at the moment of asking.
    struct SModule {
        int pool;                 ///< whose worker the thread is; -1 for none
        std::int64_t id;          ///< the handler's
        std::uint64_t callbacks;  ///< how many the thread has begun: tells one callback from the next
        const CNetHandler*
            handler;  ///< null between callbacks; only fit for printing its address: it may be gone
        const std::type_info* type;  ///< the handler's run-time class; null where the handler is
    };

    /// Enters the calling thread, with no object. @param pool whose worker it is; -1 for none.
    explicit CCurrentObject(int pool = -1);
    /// Takes it out again; same thread.
    ~CCurrentObject();
    CCurrentObject(const CCurrentObject&) = delete;
    CCurrentObject& operator=(const CCurrentObject&) = delete;

    /// Set just before a callback. Only by the thread that entered.
    void set(const CNetHandler& handler, std::int64_t id) {
        if (CallbackTimes::isOn()) [[unlikely]]
            m_began_us = CallbackTimes::now();
        m_callbacks.store(m_callbacks.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        m_id.store(id, std::memory_order_relaxed);
        m_type.store(&typeid(handler), std::memory_order_relaxed);
        m_handler.store(&handler, std::memory_order_relaxed);
    }
    /// Cleared just after it.
    void clear() {
        m_handler.store(nullptr, std::memory_order_relaxed);
        if (CallbackTimes::isOn()) [[unlikely]]
            noteTime();
    }

    /// What the thread's reads leave; to save looking for it at every callback.
    CReadWatch& readWatch() { return m_read_watch; }

    /// Calls the visitor for every entered thread, in the order of their ids. Any thread may call.
    static void visit(const std::function<void(unsigned long thread_id, const SModule& module)>& visitor);

private:
    void noteTime();

    std::atomic<const CNetHandler*> m_handler{nullptr};
    /// The class of the last handler: its information outlives the handler, which another thread may not
    /// touch.
    std::atomic<const std::type_info*> m_type{nullptr};
    std::atomic<std::int64_t> m_id{0};
    std::atomic<std::uint64_t> m_callbacks{0};
    std::uint64_t m_began_us = 0;  // of the callback in progress, while times are taken
    CReadWatch& m_read_watch = CReadWatch::ofThread();
    int m_pool;
    unsigned long m_thread_id;
};

}  // namespace Veltro::Ravelo
