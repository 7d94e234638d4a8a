// A random stream to random receivers: each must get whole frames in order, beginning with a key frame, and
// going on after a loss only with a key frame of that channel.
#include <map>
#include <random>

#include "Support/Load.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// What was put: a frame begins with "<number:channel:length>" and goes on with bytes made of its number.
struct SFrame {
    int channel;
    bool is_key;
    std::string bytes;
};

/// What a receiver gets, frame by frame, against what was put.
class CReader {
public:
    explicit CReader(const std::map<std::uint64_t, SFrame>& frames) : m_frames(frames) {}

    /// A receiver of some channels; -1 of all.
    void setChannels(unsigned mask) { m_mask = mask; }
    void take(const std::string& bytes) {
        m_pending += bytes;
        while (!m_pending.empty() && take_frame()) {
        }
    }
    /// Whether nothing is pending: what has come are whole frames.
    bool isAtAnEnd() const { return m_pending.empty(); }
    std::uint64_t frames() const { return m_count; }
    /// The receiver has left the stream; it comes back with a key frame, behind the rest of the frame it is
    /// in.
    void rejoin() {
        m_rejoins = !m_pending.empty();
        m_started = m_started && m_rejoins;
    }

private:
    bool take_frame() {
        const std::size_t end = m_pending.find('>');
        if (end == std::string::npos) return false;
        const std::uint64_t number = std::stoull(m_pending.substr(1));
        const auto found = m_frames.find(number);
        EXPECT_TRUE(found != m_frames.end()) << m_pending.substr(0, 40);
        if (found == m_frames.end()) return m_pending.clear(), false;
        const SFrame& frame = found->second;
        if (m_pending.size() < frame.bytes.size()) {
            EXPECT_EQ(frame.bytes.substr(0, m_pending.size()), m_pending);
            return false;
        }
        EXPECT_EQ(frame.bytes, m_pending.substr(0, frame.bytes.size()));
        m_pending.erase(0, frame.bytes.size());
        judge(number, frame);
        return true;
    }
    void judge(std::uint64_t number, const SFrame& frame) {
        EXPECT_GT(number, m_last);
        EXPECT_NE(0U, m_mask & (1U << frame.channel)) << number;
        if (!m_started) {
            EXPECT_TRUE(frame.is_key) << number << " is the first";
        } else {
            // Everything of this channel since the last frame that came must have come, or this is a key
            // frame.
            bool complete = true;
            for (auto i = m_frames.upper_bound(std::max(m_last_of[frame.channel], m_joined));
                 i->first < number; ++i) {
                complete &= i->second.channel != frame.channel;
            }
            EXPECT_TRUE(complete || frame.is_key) << number << " after a loss";
        }
        if (!m_started) m_joined = number;
        m_started = !m_rejoins;
        m_rejoins = false;
        m_last = number;
        m_last_of[frame.channel] = number;
        m_count += 1;
    }

    const std::map<std::uint64_t, SFrame>& m_frames;
    std::string m_pending;
    unsigned m_mask = 0xFF;
    bool m_started = false;
    bool m_rejoins = false;  ///< behind the frame that has begun
    std::uint64_t m_joined = 0;
    std::uint64_t m_last = 0;
    std::map<int, std::uint64_t> m_last_of;
    std::uint64_t m_count = 0;
};

struct MediaModel : MediaTest, ::testing::WithParamInterface<unsigned> {
    struct SClient {
        CMediaReceiver receiver;
        CReader reader;
        bool linked = false;
        explicit SClient(const std::map<std::uint64_t, SFrame>& frames) : reader(frames) {}
    };

    std::mt19937 random;
    CMediaBuffer buffer;
    std::map<std::uint64_t, SFrame> frames;
    std::vector<std::unique_ptr<SClient>> clients;
    SChannels<int> best;
    int put_now = 0;

    MediaModel() { best.fill(10); }
    ~MediaModel() override {
        for (const auto& client : clients) buffer.DelSender(client->receiver.get());
    }

    int roll(int sides) { return static_cast<int>(random() % static_cast<unsigned>(sides)); }

    void putFrame(int longest) {
        const std::uint64_t number = frames.size() + 1;
        const int channel = roll(3);
        const int level = roll(6) == 0 ? 1 + roll(2) : 2 + roll(11);
        const int body = roll(longest);
        std::string bytes = "<" + std::to_string(number) + ">";
        for (int i = 0; i < body; ++i)
            bytes += static_cast<char>('a' + (number * 7 + static_cast<unsigned>(i)) % 26);
        best[static_cast<std::size_t>(channel)] =
            std::min({best[static_cast<std::size_t>(channel)], level, 10});
        const bool is_key = std::min(level, 10) == best[static_cast<std::size_t>(channel)];
        frames[number] = {channel, is_key, bytes};
        std::size_t begin = 0;
        while (begin < bytes.size()) {
            const std::size_t length =
                std::min(bytes.size() - begin, static_cast<std::size_t>(1 + roll(1 + longest / 2)));
            const bool is_last = begin + length == bytes.size();
            EXPECT_EQ(0, put(buffer, packets, bytes.substr(begin, length), is_last ? 1 : roll(2) * 2,
                             is_last ? level : 1 + roll(10), channel));
            begin += length;
            if (!is_last && roll(40) == 0) put(buffer, packets, "", 0, 1, channel);
        }
    }
    void step() {
        const int what = roll(100);
        if (what < 55) {
            putFrame(roll(20) == 0 ? 60'000 : 3'000);
        } else if (what < 65) {
            buffer.do_send();
        } else if (what < 80) {
            read(*clients[static_cast<std::size_t>(roll(static_cast<int>(clients.size())))]);
        } else if (what < 96) {
            SClient& client = *clients[static_cast<std::size_t>(roll(static_cast<int>(clients.size())))];
            client.receiver.slow().SetBandWidth(static_cast<unsigned>(roll(3) == 0 ? 1 : 0));
            if (roll(2) == 0) nextPeriod();
        } else if (what < 98) {
            join();
        } else {
            leave();
        }
    }
    void read(SClient& client) { client.reader.take(client.receiver.text()); }
    void join() {
        for (const auto& client : clients) {
            if (client->linked || roll(2) == 0) continue;
            client->linked = true;
            buffer.AddSender(client->receiver.get());
            return;
        }
    }
    void leave() {
        SClient& client = *clients[static_cast<std::size_t>(roll(static_cast<int>(clients.size())))];
        if (!client.linked) return;
        buffer.DelSender(client.receiver.get());
        client.linked = false;
        read(client);
        client.reader.rejoin();
    }
};

TEST_P(MediaModel, EveryReceiverGetsWholeFramesInOrderFromKeyFramesOn) {
    random.seed(GetParam());
    for (int i = 0; i < 5; ++i) {
        clients.push_back(std::make_unique<SClient>(frames));
        if (i < 2) {
            clients.back()->receiver->SetSendChannel(i + 1);
            clients.back()->reader.setChannels(1U << (i + 1));
        }
    }
    const auto steps = static_cast<int>(std::max<std::size_t>(scaledDown(20'000), 5'000));
    for (int i = 0; i < steps; ++i) {
        step();
        if (i % 16 == 0) expectInvariants(buffer);
        if (HasFailure()) FAIL() << "after step " << i;
    }
    std::uint64_t skipped = 0;
    std::uint64_t received = 0;
    for (const auto& client : clients) {
        client->receiver.open();
        buffer.do_send();
        read(*client);
        EXPECT_TRUE(client->reader.isAtAnEnd() || !client->linked);
        EXPECT_GE(client->receiver->GetCounters().frames_sent, client->reader.frames());
        received += client->reader.frames();
        skipped += client->receiver->GetCounters().skipped_late;
        buffer.DelSender(client->receiver.get());
    }
    EXPECT_GT(skipped, 0U) << "or this has tested little";
    EXPECT_GT(received, 100U);
    EXPECT_EQ(0U, buffer.GetBufferSize());
    clients.clear();
    EXPECT_EQ(0, packets.outstanding());
}

INSTANTIATE_TEST_SUITE_P(Seeds, MediaModel, ::testing::Values(1U, 2U, 20'261U, 77U));

}  // namespace
}  // namespace Veltro::Ravelo
