#include "Debug/Stat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Core/StreamPair.h"
#include "Debug/CallbackTimes.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;
using TestSupport::SStreamPair;

using Lines = std::vector<std::string>;

class Stat : public testing::Test {
protected:
    ~Stat() override {
        handler->RemoveSock(pair.near_end);
        closeAndWait(handler);
    }
    /// What the command answers.
    Lines run(Lines words, int result = 0) {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        CLogCapture log;
        EXPECT_EQ(Ravelo::Stat::OnStat(static_cast<int>(argv.size()), argv.data()), result);
        Lines lines;
        for (const auto& line : log.lines()) lines.push_back(line.text);
        return lines;
    }
    /// The one row of an answer, with its lines joined into one.
    std::string only(const Lines& words) {
        const Lines lines = run(words);
        std::string row;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].starts_with("  "), i > 0) << lines[i];
            if (i > 0) row.pop_back();
            row += lines[i].substr(i > 0 ? 1 : 0);
        }
        return row;
    }

    const CPublicPool pool;
    CTestHandler* handler = new CTestHandler;
    SStreamPair pair;
};

TEST_F(Stat, ShowsThePools) {
    handler->RegisterSock(pair.near_end, EventMask::Read, 0);
    const std::string line = only({"pools"});
    EXPECT_TRUE(line.starts_with("pool number 0: threads ")) << line;
    EXPECT_NE(line.find(", handlers 1, sockets 1, callbacks "), std::string::npos) << line;
}

TEST_F(Stat, CountsCallbacks) {
    EXPECT_NE(only({"pools"}).find(", callbacks 0\n"), std::string::npos);
    std::atomic<int> calls{0};
    handler->on_message = [&calls](long, unsigned, long) { return ++calls; };
    for (int i = 0; i < 50; ++i) handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(TestSupport::waitUntil([&calls] { return calls.load() == 50; }));
    EXPECT_NE(only({"pools"}).find(", callbacks 50\n"), std::string::npos);
}

TEST_F(Stat, ShowsHandlersByClassWithTheirSockets) {
    handler->RegisterSock(pair.near_end, EventMask::Read, 0);
    EXPECT_EQ(only({"handlers"}), "handler class Veltro::TestSupport::CTestHandler: count 1, sockets 1\n");
}

TEST_F(Stat, ShowsWhatSocketsWaitFor) {
    handler->RegisterSock(pair.near_end, EventMask::Read, 5'000'000);
    EXPECT_EQ(only({"sockets"}),
              "socket pool 0: count 1, reading 1, writing 0, with_timeout 1, in_flight 0\n");
}

TEST_F(Stat, ShowsTimers) {
    EXPECT_EQ(only({"timers"}), "timer: armed 0\n");
    const long timer = handler->SetTimer(60'000'000);
    EXPECT_EQ(only({"timers"}), "timer: armed 1\n");
    handler->DestroyTimer(timer);
}

TEST_F(Stat, ShowsThreadsAndMessages) {
    // Workers enter the table a moment after the pool is made.
    ASSERT_TRUE(TestSupport::waitUntil([this] { return run({"threads"}).size() >= 2; }));
    const Lines lines = run({"threads"});
    EXPECT_NE(lines[0].find(" name Ravelo0: busy 0, callbacks "), std::string::npos) << lines[0];
    EXPECT_TRUE(only({"messages"}).starts_with("message: waiting_for_file_threads 0, records_in_use "));
}

TEST_F(Stat, ShowsTheMemoryPool) {
    const auto figure = [this](const std::string& name) {
        const std::string line = only({"memory"});
        return std::stol(line.substr(line.find(name) + name.size()));
    };
    const long blocks = figure("in_use_blocks ");
    const long bytes = figure("in_use_bytes ");
    void* const block = handler->TsMalloc(5000);
    EXPECT_EQ(figure("in_use_blocks "), blocks + 1);
    EXPECT_EQ(figure("in_use_bytes "), bytes + 5000);
    handler->TsFree(block);
    EXPECT_EQ(figure("in_use_blocks "), blocks);
    EXPECT_EQ(figure("in_use_bytes "), bytes);
}

TEST_F(Stat, SwitchesTheTimingOfCallbacks) {
    EXPECT_EQ(only({"times", "on"}), "callbacks are timed from now on\n");
    EXPECT_TRUE(CallbackTimes::isOn());
    handler->on_message = [](long, unsigned, long) { return 0; };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(TestSupport::waitUntil([] { return !CallbackTimes::list().empty(); }));
    EXPECT_TRUE(only({"times"}).starts_with(
        "time class Veltro::TestSupport::CTestHandler: callbacks 1, longest_us "));
    EXPECT_EQ(only({"times", "off"}), "callbacks are timed no more\n");
    EXPECT_FALSE(CallbackTimes::isOn());
}

TEST_F(Stat, ShowsEverythingWithoutAWord) {
    const Lines lines = run({});
    EXPECT_GE(lines.size(), 6U);
    EXPECT_TRUE(only({"-json"}).starts_with("{\"pool\":[{\"number\":\"0\","));
    EXPECT_EQ(run({"-json"}).size(), 1U);
    EXPECT_EQ(run({"-metrics"})[1], "# TYPE ravelo_pool_threads gauge\n");
    for (const char* begin : {"pool number 0: ", "timer: ", "message: ", "memory: ", "stream_senders: ",
                              "media_senders: ", "media_buffers: "}) {
        EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(),
                                   [begin](const std::string& line) { return line.starts_with(begin); }))
            << begin;
    }
}

TEST_F(Stat, FitsEightyColumns) {
    for (const std::string& line : run({})) EXPECT_LE(line.size(), 81U) << line;
    for (const std::string& line : run({"nonsense"}, 2)) EXPECT_LE(line.size(), 81U) << line;
}

TEST_F(Stat, RefusesAWordThatItDoesNotKnow) {
    const Lines lines = run({"pool"}, 2);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "unknown word: pool\n");
    EXPECT_EQ(run({"on"}, 2).size(), 4U);
    EXPECT_EQ(run({"times", "-json", "on"}, 2).size(), 4U);
    EXPECT_EQ(run({std::string(1 << 20, 'x')}, 2)[0], "unknown word: " + std::string(40, 'x') + "\n");
}

}  // namespace
}  // namespace Veltro::Ravelo
