// What senders, media buffers and receivers tell the operator.
#include <Ravelo/MediaStreamReceiver.h>

#include <algorithm>
#include <string>
#include <vector>

#include "R3/R3Trace.h"
#include "R3/Terminal.h"
#include "Tool/MediaRig.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// Switches a trace on for as long as it lives.
class CSwitch {
public:
    explicit CSwitch(std::atomic<bool>& which) : m_switch(which) { m_switch = true; }
    ~CSwitch() { m_switch = false; }
    CSwitch(const CSwitch&) = delete;
    CSwitch& operator=(const CSwitch&) = delete;

private:
    std::atomic<bool>& m_switch;
};

/// A line with P for every address, and for every time, without its end.
std::string neutral(const std::string& chunk) {
    const std::string text = chunk.substr(0, chunk.find('\r'));
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t begin = text.compare(i, 2, "0x") == 0 ? i + 2 : i;
        const std::size_t end =
            std::min(text.find_first_not_of("0123456789abcdefABCDEF", begin), text.size());
        const bool is_address = end - begin >= 8;
        result += is_address ? 'P' : text[i];
        i = is_address ? end : i + 1;
    }
    return result;
}

std::vector<std::string> linesOf(const CTerminal& terminal) {
    std::vector<std::string> lines;
    for (const std::string& chunk : terminal.chunks()) lines.push_back(neutral(chunk));
    return lines;
}

using TLines = std::vector<std::string>;

TEST(R3ToolTrace, AStreamSenderTellsWhatItIsGivenAndWhenItMaySend) {
    SScriptedSender rig;
    CTerminal terminal;
    const CSwitch trace(R3Trace::sm_tools);
    EXPECT_EQ(0, rig.sender.put("hello"));
    EXPECT_EQ(0, rig.output());
    const std::string fd = std::to_string(rig.fd());
    const std::string name = "Veltro::Ravelo::CStreamSender";
    EXPECT_EQ((TLines{name + "::Put, object:P, class:" + name + ", put len:5, strem:P, fd:" + fd,
                      name + "::handle_output, object:P, class:" + name + ", strem:P, fd:" + fd}),
              linesOf(terminal));
}

TEST_F(MediaFanout, TellsTheWayOfAFrame) {
    CTerminal terminal;
    const CSwitch trace(R3Trace::sm_tools);
    EXPECT_EQ(0, putFrame("key"));
    EXPECT_EQ(
        (TLines{
            "Veltro::Ravelo::CMediaBuffer::put, P put packet to buffer, packet :P, len:3, mark:1, level:1!",
            "Veltro::Ravelo::CFrame::Put, Frame:P put packet:P, len:3, mark:1, level:1!",
            "Veltro::Ravelo::CMediaBuffer::send_packet, P mediabuffer send packet, should_discard:0, "
            "min_discard:3 ",
            "Veltro::Ravelo::CMediaBuffer::send_packet, P sender P send frame:P!",
            "Veltro::Ravelo::CMediaStreamSender::Send, media strem sender P send begin, frame:P!",
            "Veltro::Ravelo::CMediaBuffer::send_packet, P sender P send total:3 Bytes!",
            "Veltro::Ravelo::CMediaBuffer::send_packet, P mediabuffer send packet, should_discard:3, "
            "m_byte_discard:0 ",
            "Veltro::Ravelo::CMediaBuffer::send_packet, P mediabuffer send packet, delete frame:P, byte:3 "}),
        linesOf(terminal));
}

TEST_F(MediaFanout, TellsThatAFrameHasGrownAndThatFramesWait) {
    receiver.stall();
    putFrame("key");
    CTerminal terminal;
    const CSwitch trace(R3Trace::sm_tools);
    for (int i = 0; i < 33; ++i) put(buffer, packets, "x", i == 32 ? 1 : 0, 2);
    const TLines lines = linesOf(terminal);
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "P Frame had put 32 bytes data, 32 packets!"));
    EXPECT_EQ(
        "Veltro::Ravelo::CMediaBuffer::check_valid_frames, check valid framesP buffer 2 valid "
        "frames,invalid frames:1!",
        lines.back());
}

TEST_F(MediaFanout, TellsWhichFrameIsGivenUpAndThatTheTimerSends) {
    receiver.stall();
    putFrame("key");
    putFrame("other", 10);
    CTerminal terminal;
    const CSwitch trace(R3Trace::sm_tools);
    for (int i = 0; i < 10; ++i) buffer.do_send();
    const TLines lines = linesOf(terminal);
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(),
                            "Veltro::Ravelo::CMediaBuffer::rebuild_frame_list, P rebuild frame list, delete "
                            "frame:P, byte:5, m_byte_discard:5 !"));
    buffer.EnableAutoSend(5);
    EXPECT_TRUE(waitUntil([&terminal] {
        for (const std::string& line : linesOf(terminal)) {
            if (line == "Veltro::Ravelo::CMediaBuffer::do_send, P do send!") return true;
        }
        return false;
    }));
    buffer.DisableAutoSend();
}

TEST_F(MediaFanout, TellsThatASenderIsGivenUp) {
    receiver.peer().Close();
    receiver.own().Close();
    CTerminal terminal;
    const CSwitch trace(R3Trace::sm_tools);
    putFrame("key");
    const TLines lines = linesOf(terminal);
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(),
                            "Veltro::Ravelo::CMediaBuffer::send_packet, P delete sender P because socket "
                            "exception"));
}

TEST(R3ToolTrace, AReceiverTellsTheBeginningAndTheEndOfACall) {
    class CReceiver : public CMediaStreamReceiver {
        int handle_close(CNetHandler*) override {
            delete this;
            return 0;
        }
    };
    const CPublicPool pool;
    CTerminal terminal;
    const CSwitch trace(R3Trace::sm_receivers);
    auto* receiver = new CReceiver;
    receiver->StartReceive(0, 1.0F);
    EXPECT_TRUE(terminal.waitFor(2));
    receiver->Close();
    for (const std::string& line : linesOf(terminal)) {
        EXPECT_TRUE(line.starts_with(
            "Veltro::Ravelo::CMediaStreamReceiver::do_receive, object:P, class:Veltro::Ravelo::"))
            << line;
        EXPECT_TRUE(line.ends_with("CReceiver handle_stream_input begin at P us") ||
                    line.ends_with("CReceiver handle_stream_input end at P us"))
            << line;
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
