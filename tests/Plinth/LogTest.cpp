#include <Plinth/Log.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "FailingAllocator.h"
#include "Support/LogCapture.h"

namespace Veltro::Plinth {
namespace {

using TestSupport::CLogCapture;

/// Captures standard error; default sink and level before and after.
class CDefaultSink {
public:
    CDefaultSink() { testing::internal::CaptureStderr(); }
    ~CDefaultSink() {
        setLogSink({});
        setLogLevel(LOG_LEVEL_WARNING);
        if (m_capturing) testing::internal::GetCapturedStderr();
    }
    /// What was written so far; ends the capture.
    std::string text() {
        m_capturing = false;
        std::string text = testing::internal::GetCapturedStderr();
        std::erase(text, '\r');
        return text;
    }

private:
    bool m_capturing = true;
};

TEST(Log, TheDefaultSinkWritesLevelsUpToThreeToStandardError) {
    CDefaultSink sink;
    logInfo("plain %d\n", 0);
    for (int level = 1; level <= 5; ++level) logFilter(level, "m", "f", "g", 1, "t", "level %d\n", level);
    EXPECT_EQ(sink.text(), "plain 0\nlevel 1\nlevel 2\nlevel 3\n");
}

TEST(Log, ASinkReceivesTheLineWithItsOrigin) {
    CLogCapture log;
    logFilter(LOG_LEVEL_ERROR, "module", "File.cpp", "CClass::Function", 42, "tag", "value %d\n", 7);
    ASSERT_EQ(log.lines().size(), 1U);
    const auto line = log.lines().front();
    EXPECT_EQ(line.level, LOG_LEVEL_ERROR);
    EXPECT_EQ(line.file, "File.cpp");
    EXPECT_EQ(line.function, "CClass::Function");
    EXPECT_EQ(line.number, 42);
    EXPECT_EQ(line.text, "value 7\n");
}

TEST(Log, APlainLineHasLevelZeroAndNoOrigin) {
    CLogCapture log;
    logInfo("plain");
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines().front().level, LOG_LEVEL_PLAIN);
    EXPECT_EQ(log.lines().front().file, "");
    EXPECT_EQ(log.lines().front().function, "");
    EXPECT_EQ(log.lines().front().text, "plain");
}

TEST(Log, NullTextsReachASinkEmpty) {
    CLogCapture log;
    logFilter(LOG_LEVEL_ERROR, nullptr, nullptr, nullptr, 0, nullptr, "text");
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines().front().file, "");
    EXPECT_EQ(log.lines().front().function, "");
}

TEST(Log, TheLevelIsTheHighestThatPasses) {
    CLogCapture log(LOG_LEVEL_ERROR);
    for (int level = 0; level <= 5; ++level) logFilter(level, "", "", "", 0, "", "line");
    EXPECT_EQ(log.lines().size(), 3U);
    EXPECT_TRUE(isLogEnabled(LOG_LEVEL_ERROR));
    EXPECT_FALSE(isLogEnabled(LOG_LEVEL_WARNING));
}

TEST(Log, LevelZeroLeavesPlainLinesAndANegativeLevelNone) {
    CLogCapture log(0);
    logInfo("plain");
    logFilter(LOG_LEVEL_FATAL, "", "", "", 0, "", "fatal");
    EXPECT_EQ(log.lines().size(), 1U);
    setLogLevel(-1);
    logInfo("plain");
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Log, LevelsAboveTheTracePassWhenAskedFor) {
    CLogCapture log(9);
    logFilter(9, "", "", "", 0, "", "nine");
    logFilter(10, "", "", "", 0, "", "ten");
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Log, ALineThatDoesNotPassIsNeverFormatted) {
    // Formatting would read from an address that nothing lies at.
    const auto* unreadable = reinterpret_cast<const char*>(std::uintptr_t{16});
    CLogCapture log(LOG_LEVEL_WARNING);
    logFilter(LOG_LEVEL_TRACE, "", "", "", 0, "", "%s", unreadable);
    setLogLevel(-1);
    logInfo("%s", unreadable);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Log, LinesMayHaveAnyLength) {
    CLogCapture log;
    for (const std::size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 4096U, 1'000'000U}) {
        log.clear();
        const std::string text(length, 'x');
        logFilter(LOG_LEVEL_ERROR, "", "", "", 0, "", "%s", text.c_str());
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines().front().text, text);
    }
}

TEST(Log, C99LengthsWorkOnEveryPlatform) {
    CLogCapture log;
    logInfo("%jd %ju %zu %td %lld %llx %hhd %p", std::intmax_t{-5'000'000'000},
            std::numeric_limits<std::uintmax_t>::max(), std::size_t{6'000'000'000}, std::ptrdiff_t{-3},
            -7'000'000'000LL, 0xABCDEF0123ULL, static_cast<signed char>(-2), static_cast<void*>(&log));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines().front().text.starts_with(
        "-5000000000 18446744073709551615 6000000000 -3 -7000000000 abcdef0123 -2 "));
}

TEST(Log, ASinkThatLogsGetsItsLinesInTheDefaultSink) {
    CDefaultSink sink;
    int calls = 0;
    setLogSink([&](int, const char*, const char*, int, const char*) {
        ++calls;
        logInfo("from inside\n");
    });
    logInfo("first\n");
    logInfo("second\n");
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(sink.text(), "from inside\nfrom inside\n");
}

TEST(Log, ASinkThatThrowsLosesNoLine) {
    CDefaultSink sink;
    int calls = 0;
    setLogSink([&](int, const char*, const char*, int, const char*) {
        if (++calls == 1) throw std::runtime_error("sink");
        throw calls;
    });
    EXPECT_NO_THROW(logInfo("first\n"));
    EXPECT_NO_THROW(logFilter(LOG_LEVEL_ERROR, "", "", "", 0, "", "second\n"));
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(sink.text(), "first\nsecond\n");
}

TEST(Log, ASinkThatThrewCanBeReplaced) {
    CDefaultSink sink;
    setLogSink([](int, const char*, const char*, int, const char*) { throw 1; });
    logInfo("lost\n");
    std::string taken;
    setLogSink([&](int, const char*, const char*, int, const char* message) { taken = message; });
    logInfo("taken\n");
    EXPECT_EQ(sink.text(), "lost\n");
    EXPECT_EQ(taken, "taken\n");
}

TEST(Log, ASinkMayReplaceItself) {
    CDefaultSink sink;
    auto alive = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = alive;
    std::vector<std::string> second;
    setLogSink([&, alive](int, const char*, const char*, int, const char*) {
        setLogSink([&](int, const char*, const char*, int, const char* text) { second.emplace_back(text); });
        ++*alive;  // what was captured lives until the call returns
    });
    alive.reset();
    logInfo("to the first");
    EXPECT_TRUE(watch.expired());
    logInfo("to the second");
    EXPECT_EQ(second, std::vector<std::string>{"to the second"});
}

TEST(Log, TheFormerSinkIsGoneWhenItIsReplaced) {
    CDefaultSink sink;
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = captured;
    setLogSink([captured](int, const char*, const char*, int, const char*) { ++*captured; });
    captured.reset();
    EXPECT_FALSE(watch.expired());
    setLogSink({});
    EXPECT_TRUE(watch.expired());
    logInfo("default again\n");
    EXPECT_EQ(sink.text(), "default again\n");
}

TEST(Log, ReplacingASinkWaitsForTheCallInProgress) {
    CDefaultSink sink;
    CSemaphore inside;
    CSemaphore go_on;
    std::atomic<bool> left{false};
    setLogSink([&](int, const char*, const char*, int, const char*) {
        inside.post();
        go_on.pend(20'000);  // nobody posts: the call just takes its time
        left.store(true);
    });
    CThreadLite logger([](CThreadLite&) { logInfo("line"); }, "logger");
    ASSERT_TRUE(logger.createThread());
    inside.pend();
    setLogSink({});
    EXPECT_TRUE(left.load());
}

/// A sink that notices a call after it has been replaced.
struct SWatchedSink {
    std::shared_ptr<std::atomic<bool>> alive = std::make_shared<std::atomic<bool>>(true);
    std::atomic<int>* lines;
    std::atomic<int>* late;

    void operator()(int, const char*, const char*, int, const char*) const {
        lines->fetch_add(1);
        if (!alive->load()) late->fetch_add(1);
    }
};

TEST(Log, ReplacingSinksWhileOthersLogLosesNoLineAndCallsNoFormerSink) {
    constexpr int THREADS = 3;
    constexpr int LINES = 3'000;
    CDefaultSink sink;
    std::atomic<int> lines{0};
    std::atomic<int> late{0};
    std::atomic<int> running{THREADS};
    SWatchedSink current{.lines = &lines, .late = &late};
    setLogSink(current);
    std::vector<std::unique_ptr<CThreadLite>> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.push_back(std::make_unique<CThreadLite>(
            [&](CThreadLite&) {
                for (int line = 0; line < LINES; ++line) logInfo("line %d", line);
                running.fetch_sub(1);
            },
            "logger"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    while (running.load() > 0) {
        SWatchedSink next{.lines = &lines, .late = &late};
        setLogSink(next);
        current.alive->store(false);
        current = next;
    }
    threads.clear();
    EXPECT_EQ(lines.load(), THREADS * LINES);
    EXPECT_EQ(late.load(), 0);
}

TEST(Log, TwoSinksMayReplaceEachOtherFromInside) {
    CDefaultSink sink;
    setLogSink([](int, const char*, const char*, int, const char*) {
        setLogSink([](int, const char*, const char*, int, const char*) {});
    });
    std::vector<std::unique_ptr<CThreadLite>> threads;
    for (int i = 0; i < 3; ++i) {
        threads.push_back(std::make_unique<CThreadLite>(
            [](CThreadLite&) {
                for (int round = 0; round < 300; ++round) {
                    setLogSink([](int, const char*, const char*, int, const char*) {
                        setLogSink([](int, const char*, const char*, int, const char*) {});
                    });
                    logInfo("line");
                }
            },
            "logger"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    threads.clear();
    setLogSink({});
    logInfo("after\n");
    EXPECT_EQ(sink.text(), "after\n");
}

TEST(Log, WithoutMemoryALongLineIsCutShort) {
    if (!TestSupport::libraryUsesThisAllocator()) return;
    char taken[2048] = {};
    setLogSink([&taken](int, const char*, const char*, int, const char* text) {
        std::snprintf(taken, sizeof taken, "%s", text);
    });
    const std::string text(2000, 'x');
    {
        const TestSupport::CFailingAllocator failing;
        logInfo("%s", text.c_str());
    }
    setLogSink({});
    EXPECT_EQ(std::string(taken), text.substr(0, 1023));
}

TEST(Log, WithoutMemoryForASinkLinesGoToTheDefault) {
    if (!TestSupport::libraryUsesThisAllocator()) return;
    CDefaultSink sink;
    bool called = false;
    setLogSink([&called](int, const char*, const char*, int, const char*) { called = true; });
    LogSink next = [&called](int, const char*, const char*, int, const char*) { called = true; };
    {
        const TestSupport::CFailingAllocator failing;
        setLogSink(std::move(next));
    }
    logInfo("line\n");
    EXPECT_FALSE(called);
    EXPECT_EQ(sink.text(), "line\n");
}

}  // namespace
}  // namespace Veltro::Plinth
