#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Socket/GetHostByName.h"
#include "Socket/SockAddrText.h"
#include "Support/LogCapture.h"
#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

/// One use of the resolver.
struct SResolver {
    CGetHostByName* resolver = CGetHostByName::Acquire();
    ~SResolver() { CGetHostByName::Release(); }

    bool find4(const char* name, sockaddr_in* out) const {
        return resolver->GetAddressInfo(name, AF_INET, reinterpret_cast<sockaddr*>(out), sizeof(*out), 2000);
    }
    bool find6(const char* name, sockaddr_in6* out) const {
        return resolver->GetAddressInfo(name, AF_INET6, reinterpret_cast<sockaddr*>(out), sizeof(*out), 2000);
    }
};

std::string print(const sockaddr_in6& address) {
    char text[64];
    return formatAddress(AF_INET6, &address.sin6_addr, text, sizeof(text));
}

TEST(GetHostByName, TheInstanceLivesFromItsFirstUseToItsLast) {
    EXPECT_EQ(0, CGetHostByName::GetUseCount());
    CGetHostByName* first = CGetHostByName::Acquire();
    EXPECT_EQ(first, CGetHostByName::Acquire());
    EXPECT_EQ(2, CGetHostByName::GetUseCount());
    CGetHostByName::Release();
    EXPECT_EQ(1, CGetHostByName::GetUseCount());
    CGetHostByName::Release();
    EXPECT_EQ(0, CGetHostByName::GetUseCount());
}

TEST(GetHostByName, AReleaseTooManyCountsNothing) {
    CGetHostByName::Release();
    EXPECT_EQ(0, CGetHostByName::GetUseCount());
}

TEST(GetHostByName, AnIPv4LiteralIsItself) {
    SResolver resolver;
    sockaddr_in found{};
    found.sin_port = 77;
    ASSERT_TRUE(resolver.find4("10.0.0.1", &found));
    EXPECT_EQ(AF_INET, found.sin_family);
    EXPECT_EQ(0x0A000001U, ntohl(found.sin_addr.s_addr));
    EXPECT_EQ(77, found.sin_port);
}

TEST(GetHostByName, AnIPv6LiteralIsItself) {
    SResolver resolver;
    sockaddr_in6 found{};
    ASSERT_TRUE(resolver.find6("fe80::1%5", &found));
    EXPECT_EQ(AF_INET6, found.sin6_family);
    EXPECT_EQ("fe80::1", print(found));
    EXPECT_EQ(5U, found.sin6_scope_id);
}

TEST(GetHostByName, LocalhostIsFoundInBothFamilies) {
    SResolver resolver;
    sockaddr_in ipv4{};
    sockaddr_in6 ipv6{};
    ASSERT_TRUE(resolver.find4("localhost", &ipv4));
    EXPECT_EQ(0x7FU, ntohl(ipv4.sin_addr.s_addr) >> 24);
    ASSERT_TRUE(resolver.find6("localhost", &ipv6));
    EXPECT_TRUE(print(ipv6) == "::1" || print(ipv6).starts_with("::ffff:127.")) << print(ipv6);
}

TEST(GetHostByName, AnIPv4LiteralInIPv6IsMapped) {
    SResolver resolver;
    sockaddr_in6 found{};
    std::memset(&found.sin6_addr, 0xEE, sizeof(found.sin6_addr));
    ASSERT_TRUE(resolver.find6("1.2.3.4", &found));
    EXPECT_EQ("::ffff:1.2.3.4", print(found));
}

TEST(GetHostByName, AFailureInIPv4IsNotLogged) {
    TestSupport::CLogCapture log;
    SResolver resolver;
    sockaddr_in found{};
    EXPECT_FALSE(resolver.find4("1.2.3.4.5", &found));
    EXPECT_FALSE(resolver.find4("", &found));
    EXPECT_FALSE(resolver.find4(nullptr, &found));
    EXPECT_FALSE(resolver.find4("::1", &found));
    EXPECT_TRUE(log.lines().empty());
}

TEST(GetHostByName, AFailureInIPv6IsLoggedWithTheResolversText) {
    TestSupport::CLogCapture log;
    SResolver resolver;
    sockaddr_in6 found{};
    EXPECT_FALSE(resolver.find6("not a name", &found));
    const std::string number = std::to_string(EAI_NONAME);
    const std::string text = SocketApi::resolverErrorText(EAI_NONAME).data();
    EXPECT_EQ(1, log.count(2, "getaddrinfo error:" + text + ", errno:" + number + ", "));
    EXPECT_EQ(EAI_NONAME, SocketApi::lastError());
}

TEST(GetHostByName, ANameThatNoHostCanHaveIsNotFound) {
    SResolver resolver;
    sockaddr_in found{};
    // No label is longer than 63 characters, so nobody need be asked.
    EXPECT_FALSE(resolver.find4((std::string(64, 'a') + ".invalid").c_str(), &found));
    EXPECT_FALSE(resolver.find4(std::string(300, 'a').c_str(), &found));
}

TEST(GetHostByName, AnotherFamilyAShortBufferOrNullFails) {
    SResolver resolver;
    sockaddr_in6 found{};
    auto* out = reinterpret_cast<sockaddr*>(&found);
    EXPECT_FALSE(resolver.resolver->GetAddressInfo("1.2.3.4", AF_INET, out, 15, 2000));
    EXPECT_FALSE(resolver.resolver->GetAddressInfo("::1", AF_INET6, out, 27, 2000));
    EXPECT_FALSE(resolver.resolver->GetAddressInfo("1.2.3.4", 99, out, 28, 2000));
    EXPECT_FALSE(resolver.resolver->GetAddressInfo("1.2.3.4", AF_INET, nullptr, 16, 2000));
}

TEST(GetHostByName, ManyThreadsLookUpAtOnce) {
    auto look_up = [](Plinth::CThreadLite&) {
        for (int i = 0; i < 50; ++i) {
            SResolver resolver;
            sockaddr_in ipv4{};
            sockaddr_in6 ipv6{};
            EXPECT_TRUE(resolver.find4(i % 2 == 0 ? "localhost" : "127.0.0.1", &ipv4));
            EXPECT_TRUE(resolver.find6(i % 2 == 0 ? "localhost" : "::1", &ipv6));
        }
    };
    std::vector<std::unique_ptr<Plinth::CThreadLite>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.push_back(std::make_unique<Plinth::CThreadLite>(look_up, "lookup"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    for (const auto& thread : threads) thread->destroyThread();
    EXPECT_EQ(0, CGetHostByName::GetUseCount());
}

}  // namespace
}  // namespace Veltro::Ravelo
