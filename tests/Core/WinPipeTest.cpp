#include "Core/WinPipe.h"

#include <Plinth/Thread.h>

#include "Support/LogCapture.h"
#include "Support/SocketPair.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {
bool waitForByte(const CWINPipe& pipe) {
    unsigned ready = 0;
    return SocketApi::waitOne(pipe.readFd(), SocketApi::WAIT_READ, 10'000'000, &ready) == 1;
}
}  // namespace

TEST(WinPipe, HasNoEndsBeforeCreateAndAfterClose) {
    CWINPipe pipe;
    EXPECT_EQ(-1, pipe.readFd());
    EXPECT_EQ(-1, pipe.writeFd());
    ASSERT_EQ(0, pipe.Create(false));
    EXPECT_GE(pipe.readFd(), 0);
    EXPECT_GE(pipe.writeFd(), 0);
    EXPECT_NE(pipe.readFd(), pipe.writeFd());
    pipe.Close();
    EXPECT_EQ(-1, pipe.readFd());
    EXPECT_EQ(-1, pipe.writeFd());
    pipe.Close();
}

TEST(WinPipe, WhatIsWrittenIsRead) {
    CWINPipe pipe;
    ASSERT_EQ(0, pipe.Create(false));
    EXPECT_EQ(3, CWINPipe::Write(pipe.writeFd(), "abc", 3));
    ASSERT_TRUE(waitForByte(pipe));
    char bytes[8] = {};
    EXPECT_EQ(3, CWINPipe::Read(pipe.readFd(), bytes, sizeof bytes));
    EXPECT_STREQ("abc", bytes);
}

TEST(WinPipe, ReadOfAnEmptyPipeSaysTryAgain) {
    CLogCapture log;
    CWINPipe pipe;
    ASSERT_EQ(0, pipe.Create(false));
    char byte;
    EXPECT_EQ(0, CWINPipe::Read(pipe.readFd(), &byte, 1));
    EXPECT_TRUE(log.lines().empty());
}

TEST(WinPipe, WriteToAFullPipeSaysTryAgain) {
    CLogCapture log;
    CWINPipe pipe;
    ASSERT_EQ(0, pipe.Create(false));
    const std::string block(64 * 1024, 'p');
    int written = 1;
    for (int i = 0; i < 10'000 && written > 0; ++i) {
        written = CWINPipe::Write(pipe.writeFd(), block.data(), static_cast<int>(block.size()));
    }
    EXPECT_EQ(0, written);
    EXPECT_TRUE(log.lines().empty());
}

TEST(WinPipe, ABlockingPipeWaitsForTheByte) {
    CWINPipe pipe;
    ASSERT_EQ(0, pipe.Create(true));
    Plinth::CThreadLite writer(
        [&pipe](Plinth::CThreadLite&) {
            Plinth::sleepMilliSecond(10);
            EXPECT_EQ(1, CWINPipe::Write(pipe.writeFd(), "w", 1));
        },
        "writer");
    ASSERT_TRUE(writer.createThread());
    char byte = 0;
    EXPECT_EQ(1, CWINPipe::Read(pipe.readFd(), &byte, 1));
    EXPECT_EQ('w', byte);
    writer.destroyThread();
}

TEST(WinPipe, ReadAfterTheOtherEndHasGoneIsLogged) {
    CLogCapture log;
    SSocketPair pair;
    pair.client.Close();
    ASSERT_TRUE(waitReadable(pair.server));
    char byte;
    EXPECT_EQ(-1, CWINPipe::Read(pair.server.GetHandle(), &byte, 1));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "socket disconnected\n"));
}

TEST(WinPipe, ReadAfterAResetIsMinusOneWithoutALine) {
    SSocketPair pair;
    CLogCapture log;
    reset(pair.server);
    ASSERT_TRUE(waitReadable(pair.client));
    char byte;
    EXPECT_EQ(-1, CWINPipe::Read(pair.client.GetHandle(), &byte, 1));
    if (isWindows() && log.count(Plinth::LOG_LEVEL_ERROR, "socket disconnected\n") == 1) {
        return printSkip("this system shows a reset as an ordinary end");
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(WinPipe, ReadAndWriteOfABadDescriptorAreLogged) {
    CWINPipe pipe;
    ASSERT_EQ(0, pipe.Create(false));
    const int bad_fd = pipe.readFd();
    pipe.Close();
    CLogCapture log;
    char byte = 'w';
    EXPECT_EQ(-1, CWINPipe::Read(bad_fd, &byte, 1));
    EXPECT_EQ(-1, CWINPipe::Write(bad_fd, &byte, 1));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "recv failed, "));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "send failed! "));
}
