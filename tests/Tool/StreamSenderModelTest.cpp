// Random steps against a plain byte string that does what a sender should.
#include <Ravelo/StreamSender.h>

#include <Ravelo/SimulatorStream.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Socket/SimulatorClock.h"
#include "Support/Load.h"
#include "Support/LogCapture.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

constexpr std::size_t STEPS = 1'000'000;

/// What a sender should hold, tell and wait for.
class CModel {
public:
    std::uint32_t capacity = CAPACITY_BYTES;
    bool waits_for_room = false;  ///< registered for Write
    long exception_id = 0;
    std::map<long, std::int64_t> wanted;  ///< -1: answered
    std::vector<long> finish_waits;
    std::map<long, std::vector<CMailbox::SMessage>> told;

    explicit CModel(long sender_id) : m_sender_id(sender_id) {}

    std::string_view queued() const { return std::string_view(m_bytes).substr(m_begin); }
    std::uint32_t length() const { return static_cast<std::uint32_t>(m_bytes.size() - m_begin); }
    std::uint32_t free() const { return capacity - length(); }

    void append(std::string_view text) { m_bytes.append(text); }
    void drop(std::size_t length_bytes) {
        m_begin += length_bytes;
        if (m_begin < 2 * m_bytes.size() / 3) return;
        m_bytes.erase(0, m_begin);
        m_begin = 0;
    }
    void tellFailure() {
        if (exception_id != 0) tell(exception_id, NOTIFY_STREAM_EXCEPTION, 0);
    }
    void tellWaiters() {
        for (auto& [id, size] : wanted) {
            if (size <= 0 || size > free()) continue;
            tell(id, NOTIFY_BUFFER_FREE, static_cast<long>(free()));
            size = -1;
        }
        if (length() > 0) return;
        for (const long id : finish_waits) tell(id, NOTIFY_SEND_FINISH, 0);
        finish_waits.clear();
    }

private:
    void tell(long id, unsigned type, long info) { told[id].push_back({m_sender_id, type, info}); }

    const long m_sender_id;
    std::string m_bytes;
    std::size_t m_begin = 0;
};

/// A sender, its model, and steps that do the same to both.
class CSteps : SScriptedSender {
public:
    /// @param limit stands between the sender and its socket; null for none.
    CSteps(unsigned seed, CSimulatorStream* limit) : m_random(seed), m_limit(limit) {
        if (m_limit != nullptr) {
            m_limit->SetRealSocket(&stream);
            m_limit->SetBandWidth(1);
        }
        attach();
        sender->WaitException(0);
    }

    void run(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            step();
            check(i);
            if (::testing::Test::HasFailure()) {
                ADD_FAILURE() << "at step " << i;
                return;
            }
        }
        sender->Clear();
        m_model.drop(m_model.length());
        m_model.tellWaiters();
        checkMessages();
    }
    /// How often a Put was taken whole at once, kept in part, added, refused; an event sent a part, all.
    std::map<std::string, std::size_t> seen;

private:
    std::uint32_t any(std::uint32_t below) { return static_cast<std::uint32_t>(m_random() % below); }
    bool chance(std::uint32_t percent) { return any(100) < percent; }
    /// Mostly small, sometimes at a block's edge, and rarely anything up to a limit.
    std::uint32_t size(std::uint32_t limit) {
        const std::uint32_t kind = any(100);
        if (kind < 60) return std::min(any(300), limit);
        if (kind < 85) return std::min(any(6000), limit);
        if (kind < 97) return std::min(std::max(any(4) * BLOCK_BYTES + any(5), 2U) - 2, limit);
        return any(limit + 1);
    }
    long anyone() { return chance(50) ? owner.id() : m_other.id(); }

    void attach() {
        CSock* target = m_limit != nullptr ? static_cast<CSock*>(m_limit) : &stream;
        EXPECT_EQ(0, sender->Attach(owner.handler(), target));
    }

    void step() {
        const std::uint32_t kind = any(100);
        if (kind < 45) {
            put(size(m_model.capacity));
        } else if (kind < 80) {
            event();
        } else if (kind < 82) {
            clear();
        } else if (kind < 84) {
            grow(1 + any(24));
        } else if (kind < 86) {
            detach();
        } else if (kind < 92) {
            waitBuffer(anyone(), size(m_model.capacity + 1000));
        } else if (kind < 97) {
            waitFinish(anyone());
        } else {
            m_model.exception_id = chance(30) ? 0 : anyone();
            sender->WaitException(m_model.exception_id);
        }
    }

    /// Lets the socket take some bytes, or fail; @return the room, 0 if it fails.
    std::uint32_t prepare(bool* failing) {
        *failing = chance(2);
        script.setFailing(*failing);
        const std::uint32_t room = chance(10) ? m_model.capacity : size(m_model.capacity);
        script.setRoom(room);
        return *failing ? 0 : room;
    }
    /// The bytes that have gone are the oldest ones of a text, and as many as the room let through.
    std::uint32_t expectSent(std::string_view text, std::uint32_t room) {
        bool oldest = false;
        const std::size_t sent = script.takeAs(text, &oldest);
        EXPECT_TRUE(oldest);
        if (m_limit == nullptr) {
            EXPECT_EQ(std::min<std::size_t>(room, text.size()), sent);
        }
        return static_cast<std::uint32_t>(sent);
    }

    void put(std::uint32_t length) {
        const std::string_view text(m_source.data() + any(m_spare), length);
        bool failing = false;
        const std::uint32_t room = prepare(&failing);
        const int result = sender->Put(text.data(), length);
        if (length == 0) {
            EXPECT_EQ(0, result);
            expectSent("", 0);
        } else if (m_model.length() > 0) {
            const bool fits = m_model.free() >= length;
            EXPECT_EQ(fits ? 0 : -1, result);
            expectSent("", 0);
            if (fits) m_model.append(text);
            seen[fits ? "added" : "refused"] += 1;
        } else if (failing && result != 0) {
            expectSent("", 0);
            m_model.tellFailure();
            seen["failed"] += 1;
        } else {
            EXPECT_EQ(0, result);
            const std::uint32_t sent = expectSent(text, room);
            m_model.append(text.substr(sent));
            if (sent < length) m_model.waits_for_room = true;
            seen[sent < length ? "kept" : "sent"] += 1;
        }
    }

    void event() {
        bool failing = false;
        const std::uint32_t room = prepare(&failing);
        if (m_limit != nullptr) s_now_ms += any(300);
        const int calls = script.gatheredSends() + script.sends();
        EXPECT_EQ(0, output());
        if (m_model.length() > 0) {
            // A used-up period does not ask the stream, so that it does not fail either.
            const bool asked = script.gatheredSends() + script.sends() > calls;
            const std::uint32_t sent = expectSent(m_model.queued(), room);
            m_model.drop(sent);
            if (failing && asked) {
                m_model.waits_for_room = false;
                m_model.tellFailure();
                seen["event failed"] += 1;
            } else if (sent > 0) {
                m_model.tellWaiters();
                seen[m_model.length() > 0 ? "sent a part" : "sent all"] += 1;
            }
        }
        if (m_model.length() == 0) m_model.waits_for_room = false;
    }

    void clear() {
        EXPECT_EQ(0, sender->Clear());
        m_model.drop(m_model.length());
        m_model.tellWaiters();
    }
    void grow(std::uint32_t blocks) {
        if (blocks * BLOCK_BYTES < m_model.length()) return;  // fails an assertion
        EXPECT_EQ(0, sender->SetBufferSize(blocks));
        if (blocks * BLOCK_BYTES <= m_model.capacity) return;
        m_model.capacity = blocks * BLOCK_BYTES;
        m_model.tellWaiters();
    }
    void detach() {
        EXPECT_NE(nullptr, sender->Detach());
        m_model.waits_for_room = false;
        if (chance(50)) attach();
    }
    void waitBuffer(long id, std::uint32_t size) {
        sender->WaitBufferSize(id, size);
        m_model.wanted[id] = size;
        m_model.tellWaiters();
    }
    void waitFinish(long id) {
        sender->WaitSendFinish(id);
        auto& waits = m_model.finish_waits;
        if (std::find(waits.begin(), waits.end(), id) == waits.end()) waits.push_back(id);
        m_model.tellWaiters();
    }

    void check(std::size_t step) {
        const bool with_content = step % 100 == 0;
        m_content.clear();
        const SWalk walk = sender.walk(with_content ? &m_content : nullptr);
        EXPECT_EQ("", walk.error);
        EXPECT_TRUE(!with_content || m_model.queued() == m_content);
        const auto counters = sender->GetCounters();
        EXPECT_EQ(m_model.length(), counters.bytes_queued);
        EXPECT_EQ(m_model.free(), counters.bytes_free);
        EXPECT_EQ(counters.bytes_taken, counters.bytes_sent + counters.bytes_cleared + counters.bytes_queued);
        EXPECT_EQ(m_model.waits_for_room, waitsForRoom());
        if (step % 1000 == 999) checkMessages();
    }
    void checkMessages() {
        EXPECT_EQ(m_model.told[owner.id()], owner.all());
        EXPECT_EQ(m_model.told[m_other.id()], m_other.all());
        for (const auto& [id, messages] : m_model.told) seen["messages"] += messages.size();
        m_model.told.clear();
    }

public:
    inline static std::uint64_t s_now_ms = 5000;

private:
    std::mt19937_64 m_random;
    CSimulatorStream* const m_limit;
    const std::uint32_t m_spare = 100'000;
    const std::string m_source = textFrom(0, 24 * BLOCK_BYTES + m_spare);
    std::string m_content;
    CMailbox m_other;
    CModel m_model{sender.id()};
};

void expectSeen(const CSteps& steps, std::size_t count) {
    for (const char* what :
         {"added", "refused", "failed", "kept", "sent", "event failed", "sent a part", "sent all"}) {
        const auto found = steps.seen.find(what);
        EXPECT_TRUE(found != steps.seen.end() && found->second > count / 1000) << what;
    }
    for (const auto& [what, times] : steps.seen) std::printf("%s: %zu\n", what.c_str(), times);
}

TEST(StreamSenderModel, RandomStepsOnAStream) {
    const CLogCapture log(Plinth::LOG_LEVEL_FATAL);
    const std::size_t count = scaledDown(STEPS);
    CSteps steps(1, nullptr);
    steps.run(count);
    expectSeen(steps, count);
}

TEST(StreamSenderModel, RandomStepsOnALimitedStream) {
    const CLogCapture log(Plinth::LOG_LEVEL_FATAL);
    const std::size_t count = scaledDown(STEPS);
    setSimulatorClock([] { return CSteps::s_now_ms; });
    {
        CSimulatorStream limited;
        CSteps steps(2, &limited);
        steps.run(count);
        expectSeen(steps, count);
    }
    setSimulatorClock(nullptr);
}

}  // namespace
}  // namespace Veltro::Ravelo
