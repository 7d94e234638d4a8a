// Packets, receivers and a buffer for tests of the media tools.
#pragma once

#include <Ravelo/MediaBuffer.h>
#include <Ravelo/MediaStreamSender.h>
#include <Ravelo/SimulatorStream.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "Core/NetHandlerRecord.h"
#include "Socket/SimulatorClock.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"
#include "Support/SocketPair.h"
#include "Tool/MediaBufferRecord.h"
#include "Tool/MediaStreamSenderRecord.h"

namespace Veltro::TestSupport {

/// A packet that counts how often it was released.
class CTestPacket : public Ravelo::CMediaPacket {
public:
    explicit CTestPacket(std::string bytes) : m_bytes(std::move(bytes)) {}
    void Release() override { released += 1; }
    char* GetBuffer() override {
        asked += 1;
        return m_bytes.data();
    }
    int length() const { return static_cast<int>(m_bytes.size()); }
    const std::string& bytes() const { return m_bytes; }

    std::atomic<int> released{0};
    std::atomic<int> asked{0};

private:
    std::string m_bytes;
};

/// All packets of a test; it expects at its end that each was released exactly once.
class CPackets {
public:
    ~CPackets() {
        for (const auto& packet : m_packets)
            EXPECT_EQ(1, packet->released.load()) << packet->bytes().substr(0, 40);
    }
    CTestPacket* make(std::string bytes) {
        m_packets.push_back(std::make_unique<CTestPacket>(std::move(bytes)));
        return m_packets.back().get();
    }
    /// How many are with a buffer still.
    int outstanding() const {
        int count = 0;
        for (const auto& packet : m_packets) count += packet->released.load() == 0;
        return count;
    }

private:
    std::vector<std::unique_ptr<CTestPacket>> m_packets;
};

/// A level argument.
constexpr int levelArgument(int level, int channel = 0) {
    return static_cast<int>((static_cast<unsigned>(level) & 0x00FF'FFFFU) |
                            (static_cast<unsigned>(channel) << 24));
}

inline int put(Ravelo::CMediaBuffer& buffer, CPackets& packets, const std::string& text, int mark = 1,
               int level = 1, int channel = 0) {
    CTestPacket* packet = packets.make(text);
    return buffer.Put(packet, packet->length(), mark, levelArgument(level, channel));
}

/// A sender, its connection, and what comes out at the other end. The connection can be made to take nothing.
class CMediaReceiver {
public:
    CMediaReceiver() : m_sender(Ravelo::CMediaStreamSender::Create()) {
        EXPECT_EQ(0, m_pair.client.SetSockSendBuf(1 << 20));
        m_slow.SetRealSocket(&m_pair.client);
        open();
        EXPECT_EQ(0, m_sender->Attach(&m_slow));
    }
    ~CMediaReceiver() { close(); }
    CMediaReceiver(const CMediaReceiver&) = delete;
    CMediaReceiver& operator=(const CMediaReceiver&) = delete;

    /// Ends the sender, which must be in no buffer, at once.
    void close() {
        if (m_sender == nullptr) return;
        m_sender->AddRef();
        m_sender->Close();
        // The pool's references go first; ours is the last one then.
        EXPECT_TRUE(
            waitUntil([this] { return Ravelo::SNetHandlerRecord::of(*m_sender).references.count() == 1; }));
        m_sender->DecRef();
        m_sender = nullptr;
    }

    Ravelo::CMediaStreamSender* operator->() const { return m_sender; }
    Ravelo::CMediaStreamSender* get() const { return m_sender; }
    Ravelo::SMediaStreamSenderRecord& record() const {
        return Ravelo::SMediaStreamSenderRecord::of(*m_sender);
    }
    Ravelo::CSockStream& own() { return m_pair.client; }
    Ravelo::CSockStream& peer() { return m_pair.server; }
    Ravelo::CSimulatorStream& slow() { return m_slow; }

    void stall() { m_slow.SetBandWidth(0); }
    void open() { m_slow.SetBandWidth(4095); }
    /// What has been sent since the last call.
    std::string text(std::size_t other_bytes = 0) {
        const std::uint64_t sent = m_sender->GetCounters().bytes_sent + (m_other += other_bytes);
        std::string text = receive(m_pair.server, static_cast<std::size_t>(sent - m_received));
        EXPECT_EQ(sent - m_received, text.size());
        m_received = sent;
        return text;
    }

private:
    SSocketPair m_pair;
    Ravelo::CSimulatorStream m_slow;
    Ravelo::CMediaStreamSender* m_sender;
    std::uint64_t m_received = 0;
    std::uint64_t m_other = 0;
};

/// What every test of the media tools has: a pool, a quiet log, and a second that does not end by itself for
/// the bandwidth-limited streams.
struct MediaTest : ::testing::Test {
    MediaTest() {
        s_now_ms = 5000;
        Ravelo::setSimulatorClock([] { return s_now_ms.load(); });
        s_now_us = 1'000'000;
        Ravelo::setMediaClock([] { return s_now_us.load(); });
    }
    ~MediaTest() override {
        Ravelo::setSimulatorClock(nullptr);
        Ravelo::setMediaClock(nullptr);
    }
    static void nextPeriod() { s_now_ms += 1001; }
    static void moveTime(std::uint64_t by_us) { s_now_us += by_us; }

    inline static std::atomic<std::uint64_t> s_now_ms{0};
    inline static std::atomic<std::uint64_t> s_now_us{0};
    CLogCapture log;
    const CPublicPool pool{1};
    CPackets packets;
};

/// A buffer with one receiver, which is a fast one at first.
struct MediaFanout : MediaTest {
    Ravelo::CMediaBuffer buffer;
    CMediaReceiver receiver;

    MediaFanout() { buffer.AddSender(receiver.get()); }
    ~MediaFanout() override { buffer.DelSender(receiver.get()); }

    int putFrame(const std::string& text, int level = 1, int channel = 0) {
        return put(buffer, packets, text, 1, level, channel);
    }
    std::uint32_t frames() { return buffer.GetCounters().frames; }
};

/// Walks a buffer's list and expects what always holds.
inline void expectInvariants(Ravelo::CMediaBuffer& buffer) {
    using namespace Ravelo;
    SMediaBufferRecord& record = SMediaBufferRecord::of(buffer);
    Plinth::CLockGuard guard(record.mutex);
    std::uint32_t count = 0;
    std::int64_t bytes = 0;
    std::uint64_t sequence = 0;
    std::uint64_t end = 0;
    for (CFrame* frame = record.m_frame_header; frame != nullptr; frame = frame->m_next) {
        count += 1;
        bytes += frame->m_byte_len;
        EXPECT_GE(frame->m_start, end);
        end = frame->end();
        EXPECT_EQ(frame->m_next == nullptr, frame == record.m_frame_tail);
        if (frame->m_next != nullptr) {
            EXPECT_TRUE(frame->isComplete());
            EXPECT_EQ(1U, frame->m_valid);
            EXPECT_GT(frame->m_sequence, sequence);
            EXPECT_GT(frame->m_byte_len, 0);
            sequence = frame->m_sequence;
        } else {
            EXPECT_FALSE(frame->isComplete());
            EXPECT_EQ(0U, frame->senders());
        }
        EXPECT_GE(frame->m_sending_bytes.load(), 0);
        EXPECT_LT(frame->senders(), 1000U);
        if (frame->isComplete()) {
            for (const std::uint64_t lost : frame->m_lost) EXPECT_LT(lost, frame->m_sequence);
        }
    }
    EXPECT_EQ(record.m_frame_num, count);
    EXPECT_EQ(record.m_byte_total, end);
    EXPECT_EQ(record.m_byte_total - record.m_byte_discard, static_cast<std::uint64_t>(bytes));
    EXPECT_EQ(record.m_has_sender, record.m_sender_header != nullptr);
    for (CMediaStreamSender* sender = record.m_sender_header; sender != nullptr;) {
        const SMediaStreamSenderRecord& its = SMediaStreamSenderRecord::of(*sender);
        if (its.m_started && record.m_frame_header != nullptr) {
            EXPECT_GE(its.m_position, record.m_frame_header->m_start);
            EXPECT_LE(its.m_position, record.m_byte_total);
        }
        sender = its.m_next_sender;
    }
}

}  // namespace Veltro::TestSupport

/// Expects an assertion of the library to fail, though the test captures the log.
#define EXPECT_ASSERTION(statement, text)     \
    EXPECT_DEATH(                             \
        {                                     \
            ::Veltro::Plinth::setLogSink({}); \
            statement;                        \
        },                                    \
        text)
