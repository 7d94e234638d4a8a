#include "Debug/StatTable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Veltro::Ravelo {
namespace {

using Lines = std::vector<std::string>;

const std::vector<SStatTable> TABLES = {
    {"pool",
     {{"threads", "Workers of the pool"}, {"queued", "Records that wait"}},
     {{{{"number", "0"}}, {2, 0}}, {{{"number", "1"}}, {4, 7}}}},
    {"timer", {{"armed", "Timers that are set"}}, {{{}, {3}}}},
    {"time", {{"longest_us", "The longest callback"}}, {}}};

TEST(StatTable, WritesLinesForPersons) {
    EXPECT_EQ(statLines(TABLES, EStatForm::Text),
              (Lines{"pool number 0: threads 2, queued 0", "pool number 1: threads 4, queued 7",
                     "timer: armed 3"}));
}

TEST(StatTable, WritesOneJsonObject) {
    EXPECT_EQ(
        statLines(TABLES, EStatForm::Json),
        (Lines{R"({"pool":[{"number":"0","threads":2,"queued":0},{"number":"1","threads":4,"queued":7}],)"
               R"("timer":[{"armed":3}],"time":[]})"}));
}

TEST(StatTable, WritesMetricsFigureByFigure) {
    EXPECT_EQ(statLines(TABLES, EStatForm::Metrics),
              (Lines{"# HELP ravelo_pool_threads Workers of the pool.", "# TYPE ravelo_pool_threads gauge",
                     R"(ravelo_pool_threads{number="0"} 2)", R"(ravelo_pool_threads{number="1"} 4)",
                     "# HELP ravelo_pool_queued Records that wait.", "# TYPE ravelo_pool_queued gauge",
                     R"(ravelo_pool_queued{number="0"} 0)", R"(ravelo_pool_queued{number="1"} 7)",
                     "# HELP ravelo_timer_armed Timers that are set.", "# TYPE ravelo_timer_armed gauge",
                     "ravelo_timer_armed 3"}));
}

TEST(StatTable, MetricsSayWhatOnlyGrowsAndCountTimesInSeconds) {
    const SStatTable table = {"sender",
                              {{"count", "Senders"},
                               {"stalled_us", "How long", EStatKind::Counter},
                               {"puts", "Blocks", EStatKind::Counter},
                               {"longest_us", "The longest"}},
                              {{{}, {7, 12'000'345, 5, 999'999}}}};
    EXPECT_EQ(
        statLines({table}, EStatForm::Metrics),
        (Lines{"# HELP ravelo_senders Senders.", "# TYPE ravelo_senders gauge", "ravelo_senders 7",
               "# HELP ravelo_sender_stalled_seconds_total How long.",
               "# TYPE ravelo_sender_stalled_seconds_total counter",
               "ravelo_sender_stalled_seconds_total 12.000345", "# HELP ravelo_sender_puts_total Blocks.",
               "# TYPE ravelo_sender_puts_total counter", "ravelo_sender_puts_total 5",
               "# HELP ravelo_sender_longest_seconds The longest.",
               "# TYPE ravelo_sender_longest_seconds gauge", "ravelo_sender_longest_seconds 0.999999"}));
}

TEST(StatTable, EscapesWhatEndsAText) {
    const std::vector<SStatTable> tables = {{"x", {{"v", "Something"}}, {{{{"l", "a\"b\\c\n"}}, {1}}}}};
    EXPECT_EQ(statLines(tables, EStatForm::Json), (Lines{R"({"x":[{"l":"a\"b\\c\u000a","v":1}]})"}));
    EXPECT_EQ(statLines(tables, EStatForm::Metrics).back(), R"(ravelo_x_v{l="a\"b\\c\n"} 1)");
}

TEST(StatTable, ALongRowGoesOnInTheNextLine) {
    SStatTable table = {"x", {}, {{{}, {}}}};
    for (int i = 0; i < 20; ++i) {
        table.figures.push_back({"a_figure", ""});
        table.rows[0].values.push_back(i);
    }
    const Lines lines = statLines({table}, EStatForm::Text);
    ASSERT_GT(lines.size(), 1U);
    std::string all;
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), 80U);
        all += line.substr(all.empty() ? 0 : 1);
    }
    std::string expected = "x:";
    for (int i = 0; i < 20; ++i) expected += (i > 0 ? "," : "") + (" a_figure " + std::to_string(i));
    EXPECT_EQ(all, expected);
}

TEST(StatTable, ColumnsHaveATitleAndRoundedNumbers) {
    const SStatTable table = {"sender",
                              {{"bytes", ""}, {"now_us", ""}},
                              {{{{"id", "-16"}}, {99'999, 0}},
                               {{{"id", "-1600"}}, {100'000, 999}},
                               {{{"id", "-3"}}, {12'345'678, 1'000}},
                               {{{"id", "-4"}}, {999'499, 61'000'000}},
                               {{{"id", "-5"}}, {999'500, 7'200'000'000}},
                               {{{"id", "-6"}}, {9'223'372'036'854'775'807, 8'640'000'000'000}}},
                              EStatLayout::Columns,
                              "sender: 6 of 6"};
    EXPECT_EQ(statLines({table}, EStatForm::Text),
              (Lines{"sender: 6 of 6",  //
                     "     id  bytes     now", "    -16  99999       0", "  -1600   100k   999us",
                     "     -3  12.3M  1.00ms", "     -4   999k   61.0s", "     -5  1.00M   2.00h",
                     "     -6  9.22E    100d"}));
    EXPECT_EQ(statLines({{"sender", {{"bytes", ""}}, {}, EStatLayout::Columns, "none"}}, EStatForm::Text),
              Lines{});
}

}  // namespace
}  // namespace Veltro::Ravelo
