#pragma once

#include <Plinth/Mutex.h>

#include <cstddef>
#include <memory>

namespace Veltro::Ravelo {

/// A block of memory as file buffers use it.
struct SNBufBlock {
    static constexpr std::size_t SIZE = 131'072;

    SNBufBlock* next = nullptr;  // in the pool
    alignas(64) char data[SIZE];
};

/// The blocks of memory that no file buffer needs at present, one pool for the process: it comes with the
/// first file buffer, and goes with the last one and the file threads. Any thread may call.
class CNBufPool {
public:
    /// How many blocks it is made with; fewer when memory is short.
    static constexpr unsigned INITIAL_BLOCKS = 64;
    /// While it holds more than so many, returned blocks are freed.
    static constexpr unsigned KEPT_BLOCKS = 256;

    CNBufPool();
    ~CNBufPool();
    CNBufPool(const CNBufPool&) = delete;
    CNBufPool& operator=(const CNBufPool&) = delete;

    /// The oldest block, or a new one; null when no memory is left.
    std::unique_ptr<SNBufBlock> Pop();
    /// Takes a block back.
    void Push(std::unique_ptr<SNBufBlock> block);
    /// How many blocks it holds.
    unsigned Size();

    /// The pool of the process, one user more; null when no memory is left. Every user calls leave() once.
    static CNBufPool* join();
    static void leave();
    /// Lets the pool go with its last user: the file threads end, for whose sake it is kept otherwise.
    static void forget();

private:
    Plinth::CMutex m_mutex;  // guards the list
    SNBufBlock* m_head PLINTH_GUARDED_BY(m_mutex) = nullptr;
    SNBufBlock* m_tail PLINTH_GUARDED_BY(m_mutex) = nullptr;
    unsigned m_count PLINTH_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Veltro::Ravelo
