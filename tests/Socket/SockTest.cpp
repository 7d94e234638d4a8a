#include <Ravelo/Sock.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "Support/LogCapture.h"
#include "Support/SocketPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::SSocketPair;

int newSocket() {
    return SocketApi::create(AF_INET, SOCK_STREAM, 0);
}

/// A socket number that was valid a moment ago.
int closedSocket() {
    const int fd = newSocket();
    SocketApi::close(fd);
    return fd;
}

std::string numbered(const char* text, int fd) {
    return std::string(text) + " fd[" + std::to_string(fd) + "], error:";
}

TEST(Sock, ANewObjectHasNoSocketAndDoesNotBlock) {
    const CSock sock;
    EXPECT_EQ(-1, sock.GetHandle());
    EXPECT_EQ(7U, sock.GetType());
    EXPECT_FALSE(sock.IsValid());
    EXPECT_FALSE(sock.GetBlockOpt());
}

TEST(Sock, AttachTakesASocket) {
    CSock sock;
    const int fd = newSocket();
    EXPECT_EQ(0, sock.Attach(fd));
    EXPECT_EQ(fd, sock.GetHandle());
    EXPECT_TRUE(sock.IsValid());
}

TEST(Sock, AttachOnAnObjectWithASocketFailsAndLeavesIt) {
    CSock sock;
    const int held = newSocket();
    const int other = newSocket();
    ASSERT_EQ(0, sock.Attach(held));
    EXPECT_EQ(-1, sock.Attach(other));
    EXPECT_EQ(held, sock.GetHandle());
    EXPECT_EQ(0, SocketApi::close(other));
    EXPECT_EQ(0, sock.Close());
}

TEST(Sock, AttachOfABadSocketFailsAndKeepsIt) {
    CLogCapture log;
    CSock sock;
    const int fd = closedSocket();
    EXPECT_EQ(-1, sock.Attach(fd));
    EXPECT_EQ(fd, sock.Detach());
    EXPECT_EQ(1, log.count(2, numbered("set_block_opt : set socket block failed!", fd)));
}

TEST(Sock, DetachGivesTheSocketUnclosed) {
    CSock sock;
    const int fd = newSocket();
    ASSERT_EQ(0, sock.Attach(fd));
    EXPECT_EQ(fd, sock.Detach());
    EXPECT_FALSE(sock.IsValid());
    EXPECT_EQ(-1, sock.Detach());
    EXPECT_EQ(0, SocketApi::close(fd));
}

TEST(Sock, ASecondCloseFailsWithoutALogLine) {
    CLogCapture log;
    CSock sock;
    ASSERT_EQ(0, sock.Attach(newSocket()));
    EXPECT_EQ(0, sock.Close());
    EXPECT_FALSE(sock.IsValid());
    EXPECT_EQ(-1, sock.Close());
    EXPECT_TRUE(log.lines().empty());
}

TEST(Sock, ACloseThatTheSystemRefusesIsLoggedAndForgetsTheSocket) {
    CSock sock;
    const int fd = newSocket();
    ASSERT_EQ(0, sock.Attach(fd));
    ASSERT_EQ(0, SocketApi::close(fd));
    CLogCapture log;
    EXPECT_EQ(-1, sock.Close());
    EXPECT_EQ(-1, sock.GetHandle());
    EXPECT_EQ(1, log.count(2, numbered(", CSock::Close failed!", fd)));
}

TEST(Sock, TheDestructorClosesTheSocket) {
    const int fd = newSocket();
    {
        CSock sock;
        ASSERT_EQ(0, sock.Attach(fd));
    }
    EXPECT_NE(0, SocketApi::close(fd));
}

TEST(Sock, CopiesNameTheSameSocket) {
    CLogCapture log;
    const int fd = newSocket();
    {
        CSock sock;
        sock.SetBlockOpt(true);
        ASSERT_EQ(0, sock.Attach(fd));
        const CSock copy(sock);
        EXPECT_EQ(fd, copy.GetHandle());
        EXPECT_EQ(7U, copy.GetType());
        EXPECT_TRUE(copy.GetBlockOpt());
    }
    EXPECT_EQ(1, log.count(2, numbered(", CSock::Close failed!", fd)));
}

TEST(Sock, TheBlockingOptionIsAppliedAtOnce) {
    SSocketPair pair;
    char byte = 0;
    EXPECT_EQ(0, pair.client.Recv(&byte, 1));
    pair.client.SetBlockOpt(true);
    EXPECT_TRUE(pair.client.GetBlockOpt());
    // A blocking read waits for the byte that is under way.
    ASSERT_EQ(1, pair.server.Send("x", 1));
    EXPECT_EQ(1, pair.client.Recv(&byte, 1));
    pair.client.SetBlockOpt(false);
    EXPECT_EQ(0, pair.client.Recv(&byte, 1));
}

TEST(Sock, TheBlockingOptionOutlivesTheSocket) {
    CSock sock;
    sock.SetBlockOpt(true);
    ASSERT_EQ(0, sock.Attach(newSocket()));
    ASSERT_EQ(0, sock.Close());
    EXPECT_TRUE(sock.GetBlockOpt());
}

TEST(Sock, ABlockingOptionThatCannotBeAppliedIsLoggedTwiceAndStays) {
    CSock sock;
    const int fd = newSocket();
    ASSERT_EQ(0, sock.Attach(fd));
    ASSERT_EQ(0, SocketApi::close(fd));
    CLogCapture log;
    sock.SetBlockOpt(true);
    EXPECT_TRUE(sock.GetBlockOpt());
    EXPECT_EQ(1, log.count(2, numbered("set_block_opt : set socket block failed!", fd)));
    EXPECT_EQ(1, log.count(2, numbered("SetBlockOpt : SetBlockOpt failed!", fd)));
    sock.Detach();
}

TEST(Sock, ABlockingOptionThatDoesNotChangeIsNotApplied) {
    CSock sock;
    const int fd = newSocket();
    ASSERT_EQ(0, sock.Attach(fd));
    ASSERT_EQ(0, SocketApi::close(fd));
    CLogCapture log;
    sock.SetBlockOpt(false);
    EXPECT_TRUE(log.lines().empty());
    sock.Detach();
}

TEST(Sock, BothEndsKnowEachOthersAddresses) {
    SSocketPair pair;
    CSockAddrIPv4 local;
    CSockAddrIPv4 remote;
    CSockAddrStorage storage;
    ASSERT_EQ(0, pair.client.GetLocalAddr(&local));
    ASSERT_EQ(0, pair.server.GetRemoteAddr(&remote));
    ASSERT_EQ(0, pair.server.GetRemoteAddr(&storage));
    EXPECT_TRUE(local == remote);
    EXPECT_EQ(0x7F000001U, local.GetIp());
    EXPECT_EQ(local.GetPort(), storage.GetPort());
    EXPECT_EQ(1U, storage.GetInputType());
    ASSERT_EQ(0, pair.client.GetLocalAddr(&storage));
    EXPECT_EQ(local.GetPort(), storage.GetPort());
}

TEST(Sock, AnAddressOfAnotherFamilyIsRefusedAndOnlyTheRemoteOneIsLogged) {
    SSocketPair pair;
    CSockAddrIPv6 address;
    CLogCapture log;
    EXPECT_EQ(-1, pair.client.GetLocalAddr(&address));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(-1, pair.client.GetRemoteAddr(&address));
    EXPECT_EQ(1, log.count(2, "GetRemoteAddr : Unkonw Sockaddr Type[2].\n"));
}

TEST(Sock, ANullAddressIsRefused) {
    SSocketPair pair;
    CLogCapture log;
    EXPECT_EQ(-1, pair.client.GetLocalAddr(nullptr));
    EXPECT_EQ(-1, pair.client.GetRemoteAddr(nullptr));
    EXPECT_EQ(1, log.count(2, "GetRemoteAddr : Unkonw Sockaddr Type[0].\n"));
}

TEST(Sock, AddressesWithoutASocketFailWithALogLine) {
    CSock sock;
    CSockAddrIPv4 address;
    CLogCapture log;
    EXPECT_EQ(-1, sock.GetLocalAddr(&address));
    EXPECT_EQ(-1, sock.GetRemoteAddr(&address));
    EXPECT_EQ(1, log.count(2, numbered("GetLocalAddr : getsockname failed!", -1)));
    EXPECT_EQ(1, log.count(2, numbered("GetRemoteAddr : getpeername failed!", -1)));
}

TEST(Sock, OnlyTheDestructorIsVirtual) {
    EXPECT_TRUE(std::has_virtual_destructor_v<CSock>);
    EXPECT_EQ(sizeof(CSock), sizeof(CSockStream));
}

}  // namespace
}  // namespace Veltro::Ravelo
