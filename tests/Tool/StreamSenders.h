// What tests of stream senders have in common.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/StreamSender.h>

#include <array>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "Support/Gate.h"
#include "Support/ScriptedSend.h"
#include "Support/SockRegistry.h"
#include "Tool/SendBufferWalk.h"
#include "Tool/StreamSenderRecord.h"

namespace Veltro::TestSupport {

constexpr std::uint32_t BLOCK_BYTES = Ravelo::SSendBuf::BYTES;
constexpr std::uint32_t CAPACITY_BYTES = 8 * BLOCK_BYTES;

/// Whether a handler is still known by its id.
inline bool isBound(long id) {
    const Ravelo::CPoolPin pool(Ravelo::poolOfId(id));
    Ravelo::CNetHandler* handler = pool->findHandler(id);
    if (handler == nullptr) return false;
    handler->DecRef();
    return true;
}

/// A sender for the time of a scope. Declare it behind its owner and its socket.
class CTestSender {
public:
    CTestSender() : m_sender(Ravelo::CStreamSender::Create()), m_id(m_sender->GetID()) {}
    ~CTestSender() { close(); }
    CTestSender(const CTestSender&) = delete;
    CTestSender& operator=(const CTestSender&) = delete;

    Ravelo::CStreamSender* get() const { return m_sender; }
    Ravelo::CStreamSender* operator->() const { return m_sender; }
    long id() const { return m_id; }

    int put(const std::string& text) {
        return m_sender->Put(text.data(), static_cast<unsigned>(text.size()));
    }
    std::uint32_t queued() const { return m_sender->GetCounters().bytes_queued; }
    /// Walks the chain. @param content receives what is queued, if it is not null.
    SWalk walk(std::string* content = nullptr) const {
        auto& record = Ravelo::SStreamSenderRecord::of(*m_sender);
        Plinth::CLockGuard guard(record.mutex);
        return TestSupport::walk(record.m_buffer, content);
    }
    void expectQueued(const std::string& expected) const {
        std::string content;
        EXPECT_EQ("", walk(&content).error);
        EXPECT_TRUE(expected == content) << content.size() << " bytes instead of these " << expected.size();
    }
    /// Withdraws the socket and ends the sender; it has left the pool when this returns.
    void close() {
        if (m_sender == nullptr) return;
        m_sender->Detach();
        m_sender->Close();
        m_sender = nullptr;
        EXPECT_TRUE(waitUntil([this] { return !isBound(m_id); }));
    }

private:
    Ravelo::CStreamSender* m_sender;
    const long m_id;
};

/// The public pool with one worker to serve it: the others wait in a callback, so that messages arrive in the
/// order in which they were posted.
class CLoneWorkerPool {
public:
    CLoneWorkerPool() {
        m_parking->on_message = [this](long, unsigned, long) {
            m_parked += 1;
            while (!m_end.pass()) {
            }
            return 0;
        };
        const unsigned others = Ravelo::CPoolPin(0)->threadCount() - 1;
        for (unsigned i = 0; i < others; ++i) m_parking->Notify(m_parking->GetID(), 0, 0);
        EXPECT_TRUE(waitUntil([this, others] { return m_parked == others; }));
    }
    ~CLoneWorkerPool() { m_end.open(); }
    CLoneWorkerPool(const CLoneWorkerPool&) = delete;
    CLoneWorkerPool& operator=(const CLoneWorkerPool&) = delete;

private:
    CPublicPool m_pool{1};
    CGate m_end;
    std::atomic<unsigned> m_parked{0};
    CScopedHandler m_parking;
};

/// A handler that collects the messages that it gets.
class CMailbox {
public:
    struct SMessage {
        long sender;
        unsigned type;
        long info;
        bool operator==(const SMessage&) const = default;
    };

    CMailbox() {
        m_handler->on_message = [this](long sender, unsigned type, long info) {
            if (type == END) {
                m_end.post();
                return 0;
            }
            Plinth::CLockGuard guard(m_mutex);
            m_messages.push_back({sender, type, info});
            return 0;
        };
    }

    long id() const { return m_handler->GetID(); }
    CTestHandler* handler() const { return m_handler.get(); }
    std::vector<SMessage> messages() const {
        Plinth::CLockGuard guard(m_mutex);
        return m_messages;
    }
    /// Whether so many have come in time.
    bool waitCount(std::size_t wanted) const {
        return waitUntil([this, wanted] { return messages().size() >= wanted; });
    }
    /// All that have come once one has that is sent now, behind them; needs a pool of one worker.
    std::vector<SMessage> all() {
        m_handler->Notify(m_handler->GetID(), END, 0);
        EXPECT_TRUE(m_end.pend(PATIENCE_MS * 1000));
        Plinth::CLockGuard guard(m_mutex);
        return std::exchange(m_messages, {});
    }

private:
    static constexpr unsigned END = 1000;

    Plinth::CSemaphore m_end;
    mutable Plinth::CMutex m_mutex;
    std::vector<SMessage> m_messages PLINTH_GUARDED_BY(m_mutex);
    CScopedHandler m_handler;  // goes first: its callbacks use the others
};

/// Keeps the last log line, and needs no memory for it.
class CLastLine {
public:
    CLastLine() {
        Plinth::setLogSink([this](int, const char*, const char*, int, const char* message) {
            std::snprintf(m_text.data(), m_text.size(), "%s", message);
        });
    }
    ~CLastLine() { Plinth::setLogSink({}); }
    CLastLine(const CLastLine&) = delete;
    CLastLine& operator=(const CLastLine&) = delete;
    std::string text() const { return m_text.data(); }

private:
    std::array<char, 400> m_text{};
};

/// Prints in failed expectations.
inline void PrintTo(const CMailbox::SMessage& message, std::ostream* out) {
    *out << "type " << message.type << " info " << message.info;
}

/// A sender whose socket takes what the test says, with its owner's mailbox. The reactor never finds the
/// socket writable: it is one that listens.
struct SScriptedSender {
    CLoneWorkerPool pool;
    SListener listener;
    Ravelo::CSockStream stream;
    CMailbox owner;
    CTestSender sender;
    CScriptedSend script;

    SScriptedSender() : script(take(listener, stream)) {
        EXPECT_EQ(0, sender->Attach(owner.handler(), &stream));
        sender->WaitException(owner.id());
    }

    int fd() const { return stream.GetHandle(); }
    SSockState state() const { return sockState(fd()); }
    bool waitsForRoom() const { return (state().mask & Ravelo::EventMask::Write) != 0; }
    int output() { return sender->handle_output(fd()); }
    /// Lets the socket take so many bytes at the next event.
    std::string drain(std::size_t room_bytes) {
        script.setRoom(room_bytes);
        EXPECT_EQ(0, output());
        script.setRoom(0);
        return script.take();
    }
    CMailbox::SMessage message(unsigned type, long info) const { return {sender.id(), type, info}; }

private:
    static int take(SListener& listener, Ravelo::CSockStream& stream) {
        stream.Attach(listener.acceptor.Detach());
        return stream.GetHandle();
    }
};

}  // namespace Veltro::TestSupport
