// What an operator sees of senders and media buffers.
#include "Debug/StatTools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "Debug/Stat.h"
#include "Tool/MediaRig.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;
using Tables = std::vector<SStatTable>;
using Lines = std::vector<std::string>;
using Figures = std::map<std::string, std::int64_t>;

const SStatTable& tableOf(const Tables& tables, const std::string& name) {
    const auto found = std::find_if(tables.begin(), tables.end(),
                                    [&name](const SStatTable& table) { return table.name == name; });
    EXPECT_NE(found, tables.end()) << name;
    return *found;
}

Figures figuresOf(const SStatTable& table, std::size_t row = 0) {
    Figures figures;
    if (row >= table.rows.size()) {
        ADD_FAILURE() << table.name << " has " << table.rows.size() << " rows";
        return figures;
    }
    for (std::size_t i = 0; i < table.figures.size(); ++i) {
        figures[table.figures[i].name] = table.rows[row].values[i];
    }
    return figures;
}

Tables senders(std::size_t at_most = StatTools::MANY) {
    Tables tables;
    StatTools::addSenders(tables, at_most);
    return tables;
}

Tables buffers(std::size_t at_most = StatTools::MANY) {
    Tables tables;
    StatTools::addBuffers(tables, at_most);
    return tables;
}

/// What the command answers.
Lines stat(Lines words) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    CLogCapture log;
    EXPECT_EQ(0, Stat::OnStat(static_cast<int>(argv.size()), argv.data()));
    Lines lines;
    for (const auto& line : log.lines()) lines.push_back(line.text);
    return lines;
}

TEST(StatTools, ShowsWhatAStreamSenderHasDone) {
    SScriptedSender rig;
    rig.script.setRoom(3);
    EXPECT_EQ(0, rig.sender.put("hello"));
    EXPECT_EQ(-1, rig.sender.put(std::string(CAPACITY_BYTES, 'x')));
    const Tables tables = senders();
    const SStatTable& each = tableOf(tables, "stream_sender");
    ASSERT_EQ(1U, each.rows.size());
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"id", std::to_string(rig.sender.id())},
                                                                {"fd", std::to_string(rig.fd())}}),
              each.rows[0].labels);
    Figures its = figuresOf(each);
    EXPECT_EQ(1, its["puts"]);
    EXPECT_EQ(1, its["refused"]);
    EXPECT_EQ(3, its["bytes_sent"]);
    EXPECT_EQ(2, its["queued"]);
    EXPECT_EQ(its["stalled_us"], its["now_us"]);
    Figures all = figuresOf(tableOf(tables, "stream_senders"));
    EXPECT_EQ(1, all["living"]);
    EXPECT_EQ(1, all["stalled"]);
    EXPECT_EQ(2, all["bytes_queued"]);
    EXPECT_EQ(0, all["bytes_dropped"]);
}

TEST(StatTools, AStallGrowsUntilItEnds) {
    SScriptedSender rig;
    EXPECT_EQ(0, rig.sender.put("hello"));
    const auto now_us = [] { return figuresOf(tableOf(senders(), "stream_sender"))["now_us"]; };
    const std::int64_t first_us = now_us();
    EXPECT_TRUE(waitUntil([&] { return now_us() > first_us; }));
    rig.script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, rig.output());
    Figures its = figuresOf(tableOf(senders(), "stream_sender"));
    EXPECT_EQ(0, its["now_us"]);
    EXPECT_GT(its["stalled_us"], first_us);
    EXPECT_EQ(its["stalled_us"], figuresOf(tableOf(senders(), "stream_sender"))["stalled_us"]);
    EXPECT_EQ(its["stalled_us"], static_cast<std::int64_t>(rig.sender->GetCounters().stalled_us));
}

TEST(StatTools, WhatASenderHasDoneStaysInTheSumsWhenItGoes) {
    Figures before = figuresOf(tableOf(senders(), "stream_senders"));
    {
        SScriptedSender rig;
        rig.script.setRoom(3);
        EXPECT_EQ(0, rig.sender.put("hello"));
        rig.sender.close();
    }
    EXPECT_TRUE(tableOf(senders(), "stream_sender").rows.empty());
    Figures after = figuresOf(tableOf(senders(), "stream_senders"));
    EXPECT_EQ(0, after["living"]);
    EXPECT_EQ(before["gone"] + 1, after["gone"]);
    EXPECT_EQ(before["puts"] + 1, after["puts"]);
    EXPECT_EQ(before["bytes_sent"] + 3, after["bytes_sent"]);
    EXPECT_EQ(before["bytes_dropped"] + 2, after["bytes_dropped"]);
    EXPECT_EQ(0, after["bytes_queued"]);
    EXPECT_EQ(0, after["stalled"]);
    EXPECT_GE(after["stalled_us"], before["stalled_us"]);
}

TEST(StatTools, SendersMayComeAndGoWhileAnOperatorLooks) {
    constexpr int ROUNDS = 300;
    const CPublicPool pool;
    const std::int64_t gone_before = figuresOf(tableOf(senders(), "stream_senders"))["gone"];
    std::atomic<int> left{2};
    const auto comeAndGo = [&left] {
        for (int i = 0; i < ROUNDS; ++i) {
            CMediaBuffer buffer;
            CMediaStreamSender* media = CMediaStreamSender::Create();
            buffer.AddSender(media);
            CStreamSender* sender = CStreamSender::Create();
            buffer.DelSender(media);
            media->Close();
            sender->Close();
        }
        --left;
    };
    CRunner one(comeAndGo);
    CRunner two(comeAndGo);
    Figures last;
    while (left > 0) {
        Figures all = figuresOf(tableOf(senders(), "stream_senders"));
        EXPECT_GE(all["gone"], last["gone"]);
        EXPECT_LE(all["gone"] + all["living"], gone_before + 2 * ROUNDS);
        last = all;
        buffers();
    }
    one.join();
    two.join();
    EXPECT_TRUE(waitUntil(
        [&] { return figuresOf(tableOf(senders(), "stream_senders"))["gone"] == gone_before + 2 * ROUNDS; }));
    EXPECT_TRUE(waitUntil([] { return tableOf(senders(), "media_sender").rows.empty(); }));
    EXPECT_TRUE(tableOf(buffers(), "media_buffer").rows.empty());
}

TEST(StatTools, LooksAtASenderThatIsBusy) {
    SScriptedSender rig;
    auto& record = SStreamSenderRecord::of(*rig.sender.get());
    Plinth::CLockGuard guard(record.mutex);
    EXPECT_EQ(1U, tableOf(senders(), "stream_sender").rows.size());
}

TEST_F(MediaTest, LooksAtABufferThatIsBusy) {
    CMediaBuffer buffer;
    SMediaBufferRecord& record = SMediaBufferRecord::of(buffer);
    Plinth::CLockGuard guard(record.mutex);
    EXPECT_EQ(1U, tableOf(buffers(), "media_buffer").rows.size());
}

TEST(StatTools, ADetachedSenderHasNoDescriptor) {
    SScriptedSender rig;
    rig.sender->Detach();
    EXPECT_EQ("-1", tableOf(senders(), "stream_sender").rows.at(0).labels.at(1).second);
}

TEST_F(MediaFanout, StatShowsWhatAMediaSenderSendsAndWhyItSkips) {
    putFrame("key");
    receiver->DisableSendChannel(1);
    putFrame("other channel", 1, 1);
    receiver.stall();
    putFrame("waits");
    moveTime(3'000'000);
    const Tables tables = senders();
    const SStatTable& each = tableOf(tables, "media_sender");
    ASSERT_EQ(1U, each.rows.size());
    EXPECT_EQ(std::to_string(receiver->GetID()), each.rows[0].labels[0].second);
    EXPECT_EQ(std::to_string(receiver.slow().GetHandle()), each.rows[0].labels[1].second);
    Figures its = figuresOf(each);
    EXPECT_EQ(1, its["frames"]);
    EXPECT_EQ(3, its["bytes"]);
    EXPECT_EQ(1, its["channel"]);
    EXPECT_EQ(0, its["late"]);
    EXPECT_EQ(3'000'000, its["now_us"]);
    EXPECT_EQ(3'000'000, its["stalled_us"]);
    for (int i = 0; i < 100; ++i) putFrame("more", 10);
    receiver.open();
    nextPeriod();
    buffer.do_send();
    its = figuresOf(tableOf(senders(), "media_sender"));
    const CMediaStreamSender::SCounters counters = receiver->GetCounters();
    EXPECT_GT(its["late"], 0);
    EXPECT_EQ(static_cast<std::int64_t>(counters.skipped_late), its["late"]);
    EXPECT_EQ(static_cast<std::int64_t>(counters.skipped_to_key), its["to_key"]);
    EXPECT_EQ(0, its["now_us"]);
    EXPECT_EQ(3'000'000, its["stalled_us"]);
    Figures all = figuresOf(tableOf(senders(), "media_senders"));
    EXPECT_EQ(all["skipped_late"], its["late"]);
    EXPECT_EQ(all["frames_sent"], its["frames"]);
    EXPECT_EQ(0, all["stalled"]);
}

TEST_F(MediaFanout, StatShowsWhatAMediaBufferHolds) {
    receiver.stall();
    putFrame("key");
    putFrame("other", 10);
    put(buffer, packets, "half", 0);
    const auto expectCounters = [this] {
        const Tables tables = buffers();
        const SStatTable& each = tableOf(tables, "media_buffer");
        ASSERT_EQ(1U, each.rows.size());
        Figures its = figuresOf(each);
        const CMediaBuffer::SCounters counters = buffer.GetCounters();
        EXPECT_EQ(1, its["senders"]);
        EXPECT_EQ(counters.frames, its["frames"]);
        EXPECT_EQ(counters.valid_frames, its["valid"]);
        EXPECT_EQ(static_cast<std::int64_t>(counters.bytes), its["bytes"]);
        EXPECT_EQ(static_cast<std::int64_t>(counters.frames_put), its["put"]);
        EXPECT_EQ(static_cast<std::int64_t>(counters.discarded), its["discarded"]);
        EXPECT_EQ(static_cast<std::int64_t>(counters.dropped), its["dropped"]);
        Figures all = figuresOf(tableOf(tables, "media_buffers"));
        EXPECT_EQ(1, all["living"]);
        EXPECT_EQ(its["bytes"], all["bytes"]);
        EXPECT_EQ(static_cast<std::int64_t>(counters.discarded_bytes), all["discarded_bytes"]);
    };
    expectCounters();
    EXPECT_EQ(12, figuresOf(tableOf(buffers(), "media_buffer"))["bytes"]);
    put(buffer, packets, " whole");
    for (int i = 0; i < 10; ++i) buffer.do_send();
    expectCounters();
    EXPECT_EQ(1, figuresOf(tableOf(buffers(), "media_buffer"))["discarded"]);
    buffer.DelSender(receiver.get());
    Figures its = figuresOf(tableOf(buffers(), "media_buffer"));
    EXPECT_EQ(0, its["senders"]);
    EXPECT_EQ(0, its["bytes"]);
}

TEST_F(MediaTest, ABufferThatGoesStaysInTheSums) {
    Figures before = figuresOf(tableOf(buffers(), "media_buffers"));
    {
        CMediaBuffer buffer;
        put(buffer, packets, "frame");
        EXPECT_EQ(before["living"] + 1, figuresOf(tableOf(buffers(), "media_buffers"))["living"]);
    }
    Figures after = figuresOf(tableOf(buffers(), "media_buffers"));
    EXPECT_EQ(before["living"], after["living"]);
    EXPECT_EQ(before["frames_put"] + 1, after["frames_put"]);
    EXPECT_EQ(before["frames"], after["frames"]);
}

TEST_F(MediaTest, ShowsTheWorstFewUnlessAllAreAskedFor) {
    std::vector<std::unique_ptr<CMediaReceiver>> crowd;
    CMediaBuffer buffer;
    for (int i = 0; i < 8; ++i) crowd.push_back(std::make_unique<CMediaReceiver>());
    for (const auto& one : crowd) buffer.AddSender(one->get());
    // Six of the eight stall, one after the other: the third is the first to do so.
    for (std::size_t i = 0; i < 6; ++i) {
        crowd[(i + 2) % 8]->stall();
        put(buffer, packets, "x");
        moveTime(1'000'000);
    }
    const auto few = tableOf(senders(StatTools::FEW), "media_sender");
    ASSERT_EQ(5U, few.rows.size());
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(std::to_string(crowd[i + 2]->get()->GetID()), few.rows[i].labels[0].second);
        EXPECT_EQ(static_cast<std::int64_t>((6 - i) * 1'000'000), few.rows[i].values.back());
    }
    EXPECT_EQ("media_sender: 5 of 8, longest stall first", few.title);
    EXPECT_EQ(8U, tableOf(senders(), "media_sender").rows.size());
    EXPECT_EQ(7U, tableOf(senders(7), "media_sender").rows.size());
    Figures all = figuresOf(tableOf(senders(0), "media_senders"));
    EXPECT_EQ(6, all["stalled"]);
    EXPECT_EQ(6'000'000, all["longest_stall_us"]);
    for (const auto& one : crowd) buffer.DelSender(one->get());
}

TEST_F(MediaFanout, WhereNothingStallsNobodyIsShownAsBad) {
    putFrame("key");
    EXPECT_TRUE(tableOf(senders(StatTools::FEW), "media_sender").rows.empty());
    EXPECT_EQ(1U, tableOf(senders(), "media_sender").rows.size());
}

TEST_F(MediaFanout, TheCommandShowsThemInEightyColumns) {
    receiver.stall();
    putFrame("key");
    moveTime(2'500'000);
    for (const Lines& words : {Lines{}, Lines{"senders"}, Lines{"buffers"}}) {
        const Lines lines = stat(words);
        for (const std::string& line : lines) EXPECT_LE(line.size(), 81U) << line;
    }
    const Lines lines = stat({"senders"});
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ("media_sender: 1 of 1, longest stall first\n", lines[lines.size() - 3]);
    EXPECT_TRUE(lines[lines.size() - 2].ends_with("  frames  bytes  late  to_key  channel  stalled    now\n"))
        << lines[lines.size() - 2];
    EXPECT_TRUE(lines.back().ends_with("       0      0     0       0        0    2.50s  2.50s\n"))
        << lines.back();
}

TEST_F(MediaFanout, MetricsHaveTheSumsOnly) {
    receiver.stall();
    putFrame("key");
    moveTime(1);
    for (const Lines& words : {Lines{"-metrics"}, Lines{"senders", "buffers", "-metrics"}}) {
        const Lines lines = stat(words);
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "ravelo_media_senders_stalled 1\n"));
        for (const std::string& line : lines) {
            EXPECT_EQ(std::string::npos, line.find("ravelo_media_sender_")) << line;
            EXPECT_EQ(std::string::npos, line.find("ravelo_media_buffer_")) << line;
        }
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
