// What tests of asynchronous files have in common: a device in memory that can be slow, short, failing and
// held, an owner that counts its messages, and pools with file threads.
#pragma once

#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>
#include <Ravelo/NFile.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Core/EventPool.h"
#include "Core/PoolTable.h"
#include "Core/ThreadPool.h"
#include "Support/Gate.h"
#include "Support/Reactor.h"

namespace Veltro::TestSupport {

/// Bytes of one file buffer.
inline constexpr unsigned BUFFER = 131'072;

/// The public pool with file threads, from construction to destruction.
class CFilePool {
public:
    explicit CFilePool(unsigned threads = 2) {
        EXPECT_EQ(Ravelo::CNetThread::CreateThreadPool(threads, true), 0);
    }
    ~CFilePool() { EXPECT_EQ(Ravelo::CNetThread::DestroyThreadPool(), 0); }
    CFilePool(const CFilePool&) = delete;
    CFilePool& operator=(const CFilePool&) = delete;
};

/// What is left of a device in memory, and how it is to behave; outlives the device.
struct SDisk {
    Plinth::CMutex mutex;
    std::string bytes PLINTH_GUARDED_BY(mutex);
    std::vector<std::string> calls PLINTH_GUARDED_BY(mutex);  // "write 0+131072", "read ...", "seek ..."
    std::atomic<int> closes{0};
    std::atomic<int> inside{0};          // calls under way
    std::atomic<int> overlaps{0};        // calls that met another one
    std::atomic<int> failing_writes{0};  // how many writes are to fail
    std::atomic<int> failing_reads{0};
    std::atomic<int> failing_seeks{0};
    std::atomic<std::int64_t> bad_from{-1};  // writes that begin here or behind fail
    std::atomic<unsigned> longest{~0U};      // bytes of one call
    std::atomic<bool> needs_aio{true};
    std::atomic<bool> opens{true};
    std::atomic<bool> has_stat{true};
    std::atomic<int> zero_writes{0};  // how many writes are to take nothing
    std::function<void()> on_write;   // before each; set while no call runs
    std::function<void()> on_read;

    std::string content() {
        Plinth::CLockGuard guard(mutex);
        return bytes;
    }
    void fill(const std::string& text) {
        Plinth::CLockGuard guard(mutex);
        bytes = text;
    }
    int count(const std::string& start) {
        Plinth::CLockGuard guard(mutex);
        return static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](const std::string& call) {
            return call.compare(0, start.size(), start) == 0;
        }));
    }
    std::vector<std::string> callsOf(const std::string& start) {
        std::vector<std::string> found;
        Plinth::CLockGuard guard(mutex);
        for (const auto& call : calls) {
            if (call.compare(0, start.size(), start) == 0) found.push_back(call);
        }
        return found;
    }
};

/// A device over an SDisk.
class CMemoryDevice : public Ravelo::CNStorDev_IF {
public:
    explicit CMemoryDevice(SDisk& disk) : m_disk(disk) {}

    int Open(const char* path, const char* mode) override {
        note("open " + std::string(path) + " " + mode);
        return m_disk.opens ? 0 : -1;
    }
    void Close() override {
        SDisk& disk = m_disk;
        delete this;
        disk.closes.fetch_add(1);
    }
    int Write(const char* buf, unsigned int len) override {
        const CInside inside(m_disk);
        if (m_disk.on_write) m_disk.on_write();
        note("write " + std::to_string(m_position) + "+" + std::to_string(len));
        if (take(m_disk.zero_writes)) return 0;
        if (take(m_disk.failing_writes)) return -1;
        if (m_disk.bad_from >= 0 && m_position >= m_disk.bad_from) return -1;
        const std::size_t count = std::min(len, m_disk.longest.load());
        Plinth::CLockGuard guard(m_disk.mutex);
        const auto place = static_cast<std::size_t>(m_position);
        if (m_disk.bytes.size() < place + count) m_disk.bytes.resize(place + count);
        std::memcpy(m_disk.bytes.data() + place, buf, count);
        m_position += static_cast<std::int64_t>(count);
        return static_cast<int>(count);
    }
    int Read(char* buf, unsigned int len) override {
        const CInside inside(m_disk);
        if (m_disk.on_read) m_disk.on_read();
        note("read " + std::to_string(m_position) + "+" + std::to_string(len));
        if (take(m_disk.failing_reads)) return -1;
        Plinth::CLockGuard guard(m_disk.mutex);
        const auto place = static_cast<std::size_t>(m_position);
        if (place >= m_disk.bytes.size()) return 0;
        const std::size_t count =
            std::min<std::size_t>({len, m_disk.longest.load(), m_disk.bytes.size() - place});
        std::memcpy(buf, m_disk.bytes.data() + place, count);
        m_position += static_cast<std::int64_t>(count);
        return static_cast<int>(count);
    }
    int Seek(std::int64_t offset, int whence) override {
        const CInside inside(m_disk);
        note("seek " + std::to_string(offset) + " " + std::to_string(whence));
        if (take(m_disk.failing_seeks)) return -1;
        m_position = whence == 1 ? m_position + offset : offset;
        return 0;
    }
    int Stat(Ravelo::NFile_Info* info) override {
        note("stat");
        if (!m_disk.has_stat) return -7;
        *info = Ravelo::NFile_Info{};
        info->create_time = 1;
        info->size = m_disk.content().size();
        return 0;
    }
    bool NeedAIO() override { return m_disk.needs_aio; }

private:
    /// A device must never be called twice at once.
    class CInside {
    public:
        explicit CInside(SDisk& disk) : m_disk(disk) {
            if (m_disk.inside.fetch_add(1) != 0) m_disk.overlaps.fetch_add(1);
        }
        ~CInside() { m_disk.inside.fetch_sub(1); }
        CInside(const CInside&) = delete;
        CInside& operator=(const CInside&) = delete;

    private:
        SDisk& m_disk;
    };

    static bool take(std::atomic<int>& left) {
        if (left.load() <= 0) return false;
        left.fetch_sub(1);
        return true;
    }
    void note(std::string call) {
        Plinth::CLockGuard guard(m_disk.mutex);
        m_disk.calls.push_back(std::move(call));
    }

    SDisk& m_disk;
    std::int64_t m_position = 0;
};

/// A handler that counts the messages of its files.
class CFileOwner {
public:
    CFileOwner() : m_handler(new CTestHandler) {
        m_handler->on_message = [this](long sender, unsigned type, long info) {
            if (on_message) on_message(sender, type);
            EXPECT_EQ(0, info);
            if (type < COUNTED) m_counts[type].fetch_add(1);
            return 0;
        };
    }
    ~CFileOwner() { close(); }
    CFileOwner(const CFileOwner&) = delete;
    CFileOwner& operator=(const CFileOwner&) = delete;

    void close() {
        if (m_handler != nullptr) closeAndWait(m_handler);
        m_handler = nullptr;
    }
    long id() const { return m_handler->GetID(); }
    int count(unsigned type) const { return m_counts[type].load(); }
    /// Waits until so many messages of a type have come in all.
    bool waitFor(unsigned type, int wanted) {
        return waitUntil([&] { return count(type) >= wanted; });
    }
    /// Lets a message through the handler's queue: what was sent before has arrived when this returns.
    void settle() {
        const int before = count(MARK);
        m_handler->Notify(m_handler->GetID(), MARK, 0);
        EXPECT_TRUE(waitFor(MARK, before + 1));
    }

    std::function<void(long sender, unsigned type)> on_message;  // set before any file is opened

private:
    static constexpr unsigned COUNTED = 64;
    static constexpr unsigned MARK = 63;

    CTestHandler* m_handler;
    std::atomic<int> m_counts[COUNTED]{};
};

/// Lets messages be sent while memory is short.
inline void keepRecordsForMessages() {
    std::vector<Ravelo::SEvent*> records;
    for (int i = 0; i < 100; ++i) records.push_back(Ravelo::CEventPool::get(0));
    for (auto* record : records) Ravelo::CEventPool::put(record);
}

/// Whether a handler of the public pool is still known.
inline bool isBound(long id) {
    const Ravelo::CPoolPin pool(0);
    Ravelo::CNetHandler* handler = pool->findHandler(id);
    if (handler == nullptr) return false;
    handler->DecRef();
    return true;
}

/// Closes a file and waits until it has left its pool: its device has been closed before that.
inline void closeFile(Ravelo::CNFile* file) {
    const long id = file->GetID();
    file->Close();
    EXPECT_TRUE(waitUntil([id] { return !isBound(id); }));
}

/// A file over an SDisk for the time of a scope, used as an owner would.
class CDiskFile {
public:
    CDiskFile(CFileOwner& owner, SDisk& disk, const char* mode = "r+")
        : m_disk(disk), m_file(Ravelo::CNFile::Open(owner.id(), "disk", mode, new CMemoryDevice(disk))) {
        EXPECT_NE(nullptr, m_file);
    }
    ~CDiskFile() { close(); }
    CDiskFile(const CDiskFile&) = delete;
    CDiskFile& operator=(const CDiskFile&) = delete;

    Ravelo::CNFile* operator->() const { return m_file; }

    /// Closes the file and waits until the device has been.
    void close() {
        if (m_file == nullptr) return;
        closeFile(m_file);
        m_file = nullptr;
        EXPECT_EQ(1, m_disk.closes.load());
    }
    /// Writes all, coming back after each message 6 or 8; false when it does not end.
    bool writeAll(const std::string& text) {
        std::size_t done = 0;
        const bool ended = waitUntil([&] {
            const int count = m_file->Write(text.data() + done, static_cast<unsigned>(text.size() - done));
            EXPECT_GE(count, 0);
            done += static_cast<std::size_t>(count);
            return done == text.size();
        });
        return ended;
    }
    /// Reads up to a number of bytes, or to the file's end.
    std::string readAll(std::size_t most, bool* ended = nullptr) {
        std::string text(most, '\0');
        std::size_t done = 0;
        bool eof = false;
        EXPECT_TRUE(waitUntil([&] {
            const int count = m_file->Read(text.data() + done, static_cast<unsigned>(most - done), eof);
            EXPECT_GE(count, 0);
            done += static_cast<std::size_t>(count);
            return eof || done == most;
        }));
        text.resize(done);
        if (ended != nullptr) *ended = eof;
        return text;
    }
    /// Leaves the file to somebody else.
    Ravelo::CNFile* release() { return std::exchange(m_file, nullptr); }

private:
    SDisk& m_disk;
    Ravelo::CNFile* m_file;
};

/// Bytes that look random.
inline std::string pattern(std::size_t length, unsigned seed = 1) {
    std::string text(length, '\0');
    std::uint32_t state = seed * 2'654'435'761U + 1;
    for (char& byte : text) {
        state = state * 1'664'525U + 1'013'904'223U;
        byte = static_cast<char>(state >> 24);
    }
    return text;
}

/// What every test of files has: a pool, an owner of files and a disk.
template <typename TPool>
class CFileTest : public testing::Test {
protected:
    TPool pool;
    CFileOwner owner;
    SDisk disk;
};

}  // namespace Veltro::TestSupport
