#pragma once

#include <Ravelo/Defs.h>

#include <atomic>
#include <functional>

namespace Veltro::Ravelo {

class CNetHandler;

/// Which handler's callback each reactor thread is running, for the deadlock report and the dumps.
///
/// A thread enters the map once and then only writes its own slot, so that a callback costs two plain stores.
class CCurrentObject {
public:
    /// Enters the calling thread, with no object.
    CCurrentObject();
    /// Takes it out again; same thread.
    ~CCurrentObject();
    CCurrentObject(const CCurrentObject&) = delete;
    CCurrentObject& operator=(const CCurrentObject&) = delete;

    /// Set just before a callback and, with null, cleared just after. Only by the thread that entered.
    void set(CNetHandler* handler) { m_handler.store(handler, std::memory_order_relaxed); }

    /// Calls the visitor for every entered thread, in the order of their ids. A handler is only fit for
    /// printing its address: it may be gone. Any thread may call.
    static void visit(
        const std::function<void(unsigned long thread_id, const CNetHandler* handler)>& visitor);

private:
    std::atomic<CNetHandler*> m_handler{nullptr};
    unsigned long m_thread_id;
};

}  // namespace Veltro::Ravelo
