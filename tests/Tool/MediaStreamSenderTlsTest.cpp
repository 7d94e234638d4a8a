// Media stream senders on TLS streams.
#include <functional>

#include "Support/TlsPair.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

constexpr std::size_t FRAME_BYTES = 1000;

/// The frame of a number: as many bytes as all others, and no two the same.
std::string frameText(int number) {
    std::string text = std::to_string(number) + ":";
    text.resize(FRAME_BYTES, static_cast<char>('a' + number % 26));
    return text;
}

/// A buffer with a sender on a TLS stream.
struct MediaStreamSenderTls : MediaTest {
    STlsPair pair;
    CMediaBuffer buffer;
    CMediaStreamSender* sender = CMediaStreamSender::Create();
    int frames_put = 0;

    MediaStreamSenderTls() {
        EXPECT_EQ(0, sender->Attach(&pair.client));
        buffer.AddSender(sender);
    }
    ~MediaStreamSenderTls() override {
        buffer.DelSender(sender);
        sender->AddRef();
        sender->Close();
        // The pool's references go first; ours is the last one then, and with it goes what the sender holds.
        EXPECT_TRUE(waitUntil([this] { return SNetHandlerRecord::of(*sender).references.count() == 1; }));
        sender->DecRef();
    }

    bool isSealed() const { return SMediaStreamSenderRecord::of(*sender).m_is_sealed; }
    void putFrame() { put(buffer, packets, frameText(frames_put++)); }
    /// Puts frames until the first bytes of one are sealed in a record that the socket did not take whole.
    void fillUp() {
        while (!isSealed() && frames_put < 100'000) putFrame();
        EXPECT_TRUE(isSealed());
    }
    /// Receives so many bytes while the buffer goes on sending.
    std::string drain(std::size_t length_bytes) {
        std::string text;
        waitUntil([&] {
            buffer.do_send();
            char block[16384];
            int received = 0;
            while ((received = pair.server.Recv(block, sizeof(block))) > 0)
                text.append(block, static_cast<std::size_t>(received));
            return text.size() >= length_bytes || received < 0;
        });
        return text;
    }
};

TEST_F(MediaStreamSenderTls, AFrameWhoseBytesAreSealedComesBeforeOtherDataAndChangesOfTheChannel) {
    fillUp();
    const auto whole = static_cast<std::size_t>(sender->GetCounters().frames_sent);
    sender->SendOtherData("OTHER", 5);
    sender->SetSendChannel(1);
    std::string expected;
    for (std::size_t i = 0; i <= whole; ++i) expected += frameText(static_cast<int>(i));
    expected += "OTHER";
    EXPECT_TRUE(expected == drain(expected.size()));
    EXPECT_FALSE(isSealed());
}

TEST_F(MediaStreamSenderTls, ASlowReaderGetsWholeFramesInTheirOrder) {
    int next = 0;
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 300; ++i) putFrame();
        const std::string text = drain(FRAME_BYTES);
        ASSERT_EQ(0U, text.size() % FRAME_BYTES);
        for (std::size_t at = 0; at < text.size(); at += FRAME_BYTES) {
            const int number = std::stoi(text.substr(at));
            EXPECT_TRUE(number >= next && frameText(number) == text.substr(at, FRAME_BYTES)) << number;
            next = number + 1;
        }
    }
    EXPECT_GT(next, 300);
}

TEST_F(MediaStreamSenderTls, ASealedFrameIsReleasedWithItsSender) {
    fillUp();
    buffer.DelSender(sender);
    EXPECT_EQ(1, packets.outstanding());
    buffer.AddSender(sender);
}

}  // namespace
}  // namespace Veltro::Ravelo
