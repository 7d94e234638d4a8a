#include "Socket/SocketApi.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/ProcessSettings.h"
#include "Support/SocketPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::SSocketPair;
using TestSupport::waitReadable;

unsigned readiness(int fd, unsigned wanted) {
    unsigned ready = 0;
    return SocketApi::waitOne(fd, wanted, 0, &ready) == 1 ? ready : 0;
}

TEST(SocketApi, StartupMayBeRepeated) {
    EXPECT_EQ(0, SocketApi::startup());
    SocketApi::cleanup();
    const int fd = SocketApi::create(AF_INET, SOCK_STREAM, 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(0, SocketApi::close(fd));
}

TEST(SocketApi, CreateOfAnUnknownFamilyFailsWithAnError) {
    SocketApi::setLastError(0);
    EXPECT_EQ(-1, SocketApi::create(9999, SOCK_STREAM, 0));
    EXPECT_NE(0, SocketApi::lastError());
}

TEST(SocketApi, EveryKnownErrorHasATextWithoutAnEndOfLine) {
    const std::string text = SocketApi::errorText(SocketApi::resetError()).data();
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(std::string::npos, text.find_first_of("\r\n"));
}

TEST(SocketApi, AnErrorWithoutATextGivesItsNumber) {
    EXPECT_STREQ("987654", SocketApi::errorText(987654).data());
    EXPECT_STREQ("-5", SocketApi::errorText(-5).data());
}

TEST(SocketApi, ErrorTextsKeepTheLastError) {
    SocketApi::setLastError(SocketApi::resetError());
    SocketApi::errorText(987654);
    SocketApi::errorText(11);
    SocketApi::interfaceIndex("no-such-interface");
    EXPECT_EQ(SocketApi::resetError(), SocketApi::lastError());
}

TEST(SocketApi, TryAgainIsWouldBlockInterruptedAndEleven) {
    SSocketPair pair;
    char byte = 0;
    ASSERT_EQ(-1, SocketApi::recv(pair.client.GetHandle(), &byte, 1));
    EXPECT_TRUE(SocketApi::isTryAgain(SocketApi::lastError()));
    EXPECT_FALSE(SocketApi::isInterrupted(SocketApi::lastError()));
    EXPECT_TRUE(SocketApi::isTryAgain(11));
    EXPECT_TRUE(SocketApi::isTryAgain(TestSupport::isWindows() ? 10004 : 4));
    EXPECT_TRUE(SocketApi::isInterrupted(TestSupport::isWindows() ? 10004 : 4));
    EXPECT_FALSE(SocketApi::isTryAgain(SocketApi::resetError()));
    EXPECT_TRUE(SocketApi::isReset(SocketApi::resetError()));
    EXPECT_TRUE(SocketApi::isConnecting(TestSupport::isWindows() ? 10036 : 115));
    EXPECT_TRUE(SocketApi::isOutOfDescriptors(TestSupport::isWindows() ? 10024 : 24));
}

TEST(SocketApi, WaitOneTimesOutWithNothingReady) {
    SSocketPair pair;
    unsigned ready = 99;
    EXPECT_EQ(0, SocketApi::waitOne(pair.client.GetHandle(), SocketApi::WAIT_READ, 1000, &ready));
    EXPECT_EQ(0U, ready);
}

TEST(SocketApi, WaitOneTakesANegativeTimeOutAsZero) {
    SSocketPair pair;
    unsigned ready = 0;
    EXPECT_EQ(0, SocketApi::waitOne(pair.client.GetHandle(), SocketApi::WAIT_READ, -1, &ready));
}

TEST(SocketApi, WaitOneReportsOnlyWhatWasAskedFor) {
    SSocketPair pair;
    ASSERT_EQ(1, pair.server.Send("x", 1));
    ASSERT_TRUE(TestSupport::waitReadable(pair.client));
    const int fd = pair.client.GetHandle();
    EXPECT_EQ(SocketApi::WAIT_READ, readiness(fd, SocketApi::WAIT_READ));
    EXPECT_EQ(SocketApi::WAIT_WRITE, readiness(fd, SocketApi::WAIT_WRITE));
    EXPECT_EQ(SocketApi::WAIT_READ | SocketApi::WAIT_WRITE,
              readiness(fd, SocketApi::WAIT_READ | SocketApi::WAIT_WRITE | SocketApi::WAIT_EXCEPT));
}

TEST(SocketApi, WaitOneSeesUrgentDataAsAnException) {
    SSocketPair pair;
    ASSERT_EQ(1, ::send(pair.server.GetHandle(), "!", 1, MSG_OOB));
    unsigned ready = 0;
    EXPECT_EQ(1, SocketApi::waitOne(pair.client.GetHandle(), SocketApi::WAIT_EXCEPT, 10'000'000, &ready));
    EXPECT_EQ(SocketApi::WAIT_EXCEPT, ready);
}

TEST(SocketApi, WaitOneSeesAResetAsReadableNotAsAnException) {
    SSocketPair pair;
    TestSupport::reset(pair.server);
    ASSERT_TRUE(TestSupport::waitReadable(pair.client));
    EXPECT_EQ(SocketApi::WAIT_READ,
              readiness(pair.client.GetHandle(), SocketApi::WAIT_READ | SocketApi::WAIT_EXCEPT));
}

TEST(SocketApi, WaitOneFailsForWhatIsNoSocket) {
    unsigned ready = 0;
    const int closed = SocketApi::create(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(0, SocketApi::close(closed));
    EXPECT_EQ(-1, SocketApi::waitOne(closed, SocketApi::WAIT_READ, 1000, &ready));
    EXPECT_NE(0, SocketApi::lastError());
    EXPECT_EQ(-1, SocketApi::waitOne(-1, SocketApi::WAIT_READ, 1000, &ready));
}

TEST(SocketApi, WaitOneWorksForDescriptorsAbove1024) {
    TestSupport::setDescriptorLimit(1600);
    std::vector<int> sockets;
    do {
        sockets.push_back(SocketApi::create(AF_INET, SOCK_STREAM, 0));
        ASSERT_GE(sockets.back(), 0);
    } while (sockets.back() <= 1024 && sockets.size() < 1500);
    SSocketPair pair;
    ASSERT_GT(pair.client.GetHandle(), 1024);

    EXPECT_EQ(SocketApi::WAIT_WRITE, readiness(pair.client.GetHandle(), SocketApi::WAIT_WRITE));
    ASSERT_EQ(1, pair.server.Send("x", 1));
    EXPECT_TRUE(TestSupport::waitReadable(pair.client));
    for (const int fd : sockets) SocketApi::close(fd);
}

TEST(SocketApi, ADatagramOfTooManyElementsIsNotCutInPieces) {
    const int fd = SocketApi::create(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    target.sin_port = htons(9);
    ASSERT_EQ(0, SocketApi::connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof(target)));
    char byte = 'x';
    const std::vector<iovec> elements(1025, iovec{1, &byte});
    const int sent = SocketApi::sendV(fd, elements.data(), 1025);
    EXPECT_TRUE(sent == -1 || sent == 1025) << sent;
    EXPECT_EQ(1024, SocketApi::sendV(fd, elements.data(), 1024));
    SocketApi::close(fd);
}

TEST(SocketApi, ConnectToAnAddressWithoutAFamilyFails) {
    const int fd = SocketApi::create(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in none{};
    EXPECT_EQ(-1, SocketApi::connect(fd, reinterpret_cast<const sockaddr*>(&none), sizeof(none)));
    EXPECT_FALSE(SocketApi::isConnecting(SocketApi::lastError())) << SocketApi::lastError();
    SocketApi::close(fd);
}

TEST(SocketApi, AnUnknownInterfaceHasIndexZero) {
    EXPECT_EQ(0U, SocketApi::interfaceIndex("no-such-interface"));
}

}  // namespace
}  // namespace Veltro::Ravelo
