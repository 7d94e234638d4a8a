// What reactor tests have in common: a pool for the time of a scope, a handler whose callbacks are set from
// outside, and a wait that ends as soon as something has become true.
#pragma once

#include <Plinth/Thread.h>
#include <Plinth/Time.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>

namespace Veltro::TestSupport {

/// Long enough for any machine; only a failing test waits so long.
inline constexpr std::int64_t PATIENCE_MS = 20'000;

/// Waits until a condition holds; false when patience runs out.
inline bool waitUntil(const std::function<bool()>& condition, std::int64_t patience_ms = PATIENCE_MS) {
    const auto deadline_ms = Plinth::CTime::getCurrentMilliSecond() + static_cast<std::uint64_t>(patience_ms);
    while (!condition()) {
        if (Plinth::CTime::getCurrentMilliSecond() > deadline_ms) return false;
        Plinth::sleepMilliSecond(1);
    }
    return true;
}

/// The public pool, from construction to destruction.
class CPublicPool {
public:
    explicit CPublicPool(unsigned threads = 2) {
        EXPECT_EQ(Ravelo::CNetThread::CreateThreadPool(threads, false), 0);
    }
    ~CPublicPool() { EXPECT_EQ(Ravelo::CNetThread::DestroyThreadPool(), 0); }
    CPublicPool(const CPublicPool&) = delete;
    CPublicPool& operator=(const CPublicPool&) = delete;
};

/// A handler made of callables; one that is not set behaves as the base class. Make it with new: it deletes
/// itself in handle_close().
class CTestHandler : public Ravelo::CNetHandler {
public:
    explicit CTestHandler(int pool = 0) : CNetHandler(pool) {}

    // The services that CNetHandler keeps for derived classes.
    using CNetHandler::CheckSock;
    using CNetHandler::DestroyTimer;
    using CNetHandler::Free;
    using CNetHandler::Malloc;
    using CNetHandler::Notify;
    using CNetHandler::NotifyIO;
    using CNetHandler::NotifySerial;
    using CNetHandler::RegisterSock;
    using CNetHandler::RemoveSock;
    using CNetHandler::SetTimer;
    using CNetHandler::TsFree;
    using CNetHandler::TsMalloc;
    using CNetHandler::UnregisterSock;

    std::function<int(int fd)> on_input;
    std::function<int(int fd)> on_output;
    std::function<int(int fd)> on_exception;
    std::function<int(int fd)> on_input_timeout;
    std::function<int(int fd)> on_output_timeout;
    std::function<std::int64_t(long timer_id)> on_timeout;
    std::function<int(long sender, unsigned type, long info)> on_message;
    /// Called in handle_close() just before the object deletes itself.
    std::function<void()> on_close;
    /// Raised in handle_close(), after on_close.
    std::atomic<int>* closed = nullptr;

    int handle_input(int fd) override { return on_input ? on_input(fd) : CNetHandler::handle_input(fd); }
    int handle_output(int fd) override { return on_output ? on_output(fd) : CNetHandler::handle_output(fd); }
    int handle_exception(int fd) override {
        return on_exception ? on_exception(fd) : CNetHandler::handle_exception(fd);
    }
    int handle_input_timeout(int fd) override {
        return on_input_timeout ? on_input_timeout(fd) : CNetHandler::handle_input_timeout(fd);
    }
    int handle_output_timeout(int fd) override {
        return on_output_timeout ? on_output_timeout(fd) : CNetHandler::handle_output_timeout(fd);
    }
    std::int64_t handle_timeout(long timer_id) override {
        return on_timeout ? on_timeout(timer_id) : CNetHandler::handle_timeout(timer_id);
    }
    int handle_message(long sender, unsigned type, long info) override {
        return on_message ? on_message(sender, type, info) : CNetHandler::handle_message(sender, type, info);
    }
    int handle_close(CNetHandler*) override {
        if (on_close) on_close();
        std::atomic<int>* raised = closed;
        delete this;
        if (raised != nullptr) raised->fetch_add(1);
        return 0;
    }
};

/// Closes a handler and waits until it has deleted itself.
inline void closeAndWait(CTestHandler* handler) {
    std::atomic<int> closed{0};
    handler->closed = &closed;
    handler->Close();
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() > 0; }));
}

}  // namespace Veltro::TestSupport
