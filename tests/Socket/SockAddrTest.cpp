#include <Ravelo/SockAddr.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>
#include <gtest/gtest.h>

#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

class CBareAddr : public CSockAddr {
public:
    sockaddr* GetAddr(sockaddr*) const override { return nullptr; }
    int GetAddrLen() const override { return 0; }
    bool IsValid() const override { return false; }
};

bool isReserved(int port) {
    return CSockAddrIPv4(0x7F000001U, static_cast<unsigned short>(port)).IsReserved();
}

TEST(SockAddr, TypeCodesAreFixedByClass) {
    EXPECT_EQ(0U, CBareAddr().GetType());
    EXPECT_EQ(1U, CSockAddrIPv4().GetType());
    EXPECT_EQ(2U, CSockAddrIPv6().GetType());
    EXPECT_EQ(3U, CSockAddrStorage().GetType());
}

TEST(SockAddr, PortsUpTo1024AreReserved) {
    EXPECT_TRUE(isReserved(0));
    EXPECT_TRUE(isReserved(80));
    EXPECT_TRUE(isReserved(1024));
    EXPECT_FALSE(isReserved(1025));
}

TEST(SockAddr, PortsFrom37780To37880AreReserved) {
    EXPECT_FALSE(isReserved(37779));
    EXPECT_TRUE(isReserved(37780));
    EXPECT_TRUE(isReserved(37880));
    EXPECT_FALSE(isReserved(37881));
}

TEST(SockAddr, PortsFrom8090To8121AreReserved) {
    EXPECT_FALSE(isReserved(8089));
    EXPECT_TRUE(isReserved(8090));
    EXPECT_TRUE(isReserved(8121));
    EXPECT_FALSE(isReserved(8122));
}

TEST(SockAddr, SinglePortsAreReservedAndTheirNeighboursAreNot) {
    for (const int port : {1900, 3800, 5000, 5050, 9999, 39999}) {
        EXPECT_TRUE(isReserved(port)) << port;
        EXPECT_FALSE(isReserved(port - 1)) << port;
        EXPECT_FALSE(isReserved(port + 1)) << port;
    }
    EXPECT_FALSE(isReserved(37775));
    EXPECT_TRUE(isReserved(37776));
    EXPECT_TRUE(isReserved(37777));
    EXPECT_TRUE(isReserved(37778));
    EXPECT_FALSE(isReserved(65535));
}

TEST(SockAddr, IPv6AndStorageAddressesAreNeverReserved) {
    EXPECT_FALSE(CSockAddrIPv6("::1", 80).IsReserved());
    EXPECT_FALSE(CSockAddrStorage("127.0.0.1", 80).IsReserved());
    EXPECT_FALSE(CBareAddr().IsReserved());
}

TEST(SockAddr, EveryClassIsOneSmallObject) {
    EXPECT_EQ(sizeof(CSockAddrIPv4), sizeof(CSockAddrIPv6));
    EXPECT_EQ(sizeof(CSockAddrIPv4), sizeof(CSockAddrStorage));
    EXPECT_EQ(sizeof(CSockAddrIPv4), 3 * sizeof(void*));
}

}  // namespace
}  // namespace Veltro::Ravelo
