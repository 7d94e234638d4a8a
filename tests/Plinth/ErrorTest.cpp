#include <Plinth/Error.h>
#include <Plinth/File.h>
#include <Plinth/Log.h>
#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <string>

namespace Veltro::Plinth {
namespace {

// "No such file" has this number on every platform; a missing argument has another.
constexpr int NO_SUCH_FILE = 2;

void failWithNoSuchFile() {
    ASSERT_EQ(CFile::access("no such file", FILE_ACCESS_EXISTS), -1);
}

TEST(Error, TellsWhyTheLastCallFailed) {
    failWithNoSuchFile();
    EXPECT_EQ(getLastError(), NO_SUCH_FILE);
}

TEST(Error, BelongsToTheThread) {
    failWithNoSuchFile();
    int there = 0;
    int here = 0;
    {
        CThreadLite other(
            [&](CThreadLite&) {
                CFile::access(nullptr, 0);
                there = getLastError();
            },
            "other");
        failWithNoSuchFile();
        ASSERT_TRUE(other.createThread());
        while (!other.isThreadOver()) yieldThread();
        failWithNoSuchFile();
        here = getLastError();
    }
    EXPECT_NE(there, NO_SUCH_FILE);
    EXPECT_NE(there, 0);
    EXPECT_EQ(here, NO_SUCH_FILE);
}

TEST(Error, SurvivesALineInTheDefaultSink) {
    testing::internal::CaptureStderr();
    failWithNoSuchFile();
    logInfo("%s\n", std::string(5000, 'x').c_str());
    const int after = getLastError();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(after, NO_SUCH_FILE);
}

TEST(Error, SurvivesASinkThatFailsItself) {
    int inside = 0;
    setLogSink([&](int, const char*, const char*, int, const char*) {
        CFile::access(nullptr, 0);
        inside = getLastError();
    });
    failWithNoSuchFile();
    logInfo("line\n");
    logFilter(LOG_LEVEL_ERROR, "", "", "", 0, "", "line\n");
    const int after = getLastError();
    setLogSink({});
    EXPECT_NE(inside, NO_SUCH_FILE);
    EXPECT_EQ(after, NO_SUCH_FILE);
}

TEST(Error, SurvivesALineThatDoesNotPass) {
    failWithNoSuchFile();
    logFilter(LOG_LEVEL_TRACE, "", "", "", 0, "", "line\n");
    EXPECT_EQ(getLastError(), NO_SUCH_FILE);
}

}  // namespace
}  // namespace Veltro::Plinth
