#include <Ravelo/SimulatorStream.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Socket/SimulatorClock.h"
#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"
#include "Support/SockRegistry.h"
#include "Support/SocketPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::receive;
using TestSupport::SSocketPair;

constexpr int MBIT_BYTES = 131'072;

std::uint64_t s_now_ms = 0;

/// A clock that stands still until it is moved.
struct SClock {
    SClock() {
        s_now_ms = 5000;
        setSimulatorClock([] { return s_now_ms; });
    }
    ~SClock() { setSimulatorClock(nullptr); }
    SClock(const SClock&) = delete;
    SClock& operator=(const SClock&) = delete;
};

/// A limiter without a stream, which counts only.
struct SimulatorStream : ::testing::Test {
    SClock clock;
    CSimulatorStream stream;
    const std::vector<char> data = std::vector<char>(200'000, 'd');

    int send(unsigned length) { return stream.Send(data.data(), length); }
};

/// A limiter in front of one end of a connection. Its sends fit the socket's buffer.
struct SLimitedPair {
    SClock clock;
    SSocketPair pair;
    CSimulatorStream stream;

    SLimitedPair() {
        EXPECT_EQ(0, pair.client.SetSockSendBuf(1 << 20));
        stream.SetRealSocket(&pair.client);
        EXPECT_EQ(0, stream.SetBandWidth(1));
    }
};

iovec element(std::string& text) {
    return {static_cast<std::uint32_t>(text.size()), text.data()};
}

TEST_F(SimulatorStream, ANewOneHasItsTypeAndNoSocket) {
    EXPECT_EQ(4U, stream.GetType());
    EXPECT_EQ(-1, stream.GetHandle());
    static_assert(!std::is_copy_constructible_v<CSimulatorStream>);
}

TEST_F(SimulatorStream, ANewOneLetsNothingThrough) {
    std::string text = "hello";
    const iovec one = element(text);
    EXPECT_EQ(0, send(5));
    EXPECT_EQ(0, stream.WriteV(&one, 1));
    s_now_ms += 5000;
    EXPECT_EQ(0, send(5));
}

TEST_F(SimulatorStream, APeriodLetsItsBandwidthThroughAndTheNextOneAgain) {
    EXPECT_EQ(0, stream.SetBandWidth(1));
    EXPECT_EQ(MBIT_BYTES, send(200'000));
    EXPECT_EQ(0, send(200'000));
    s_now_ms += 1001;
    EXPECT_EQ(MBIT_BYTES, send(200'000));
    EXPECT_EQ(0, send(1));
}

TEST_F(SimulatorStream, APeriodLastsMoreThanASecond) {
    stream.SetBandWidth(1);
    EXPECT_EQ(MBIT_BYTES, send(200'000));
    s_now_ms += 1000;
    EXPECT_EQ(0, send(1));
    s_now_ms += 1;
    EXPECT_EQ(1, send(1));
}

TEST_F(SimulatorStream, APeriodBeginsWithTheFirstSendAfterTheOneBefore) {
    stream.SetBandWidth(1);
    s_now_ms += 1500;
    EXPECT_EQ(MBIT_BYTES, send(200'000));
    s_now_ms += 1000;
    EXPECT_EQ(0, send(1));
    s_now_ms += 1;
    EXPECT_EQ(1, send(1));
}

TEST_F(SimulatorStream, TheFirstPeriodBeginsWhenTheObjectIsMade) {
    stream.SetBandWidth(1);
    s_now_ms += 1000;
    EXPECT_EQ(100, send(100));
    s_now_ms += 1;
    EXPECT_EQ(MBIT_BYTES, send(200'000));
}

TEST_F(SimulatorStream, SendsOfAPeriodAddUp) {
    stream.SetBandWidth(1);
    EXPECT_EQ(100'000, send(100'000));
    EXPECT_EQ(MBIT_BYTES - 100'000, send(100'000));
    EXPECT_EQ(0, send(100'000));
}

TEST_F(SimulatorStream, BandwidthIsCountedIn32Bits) {
    const char* anything = "x";
    for (const auto& [mbit, bytes] :
         {std::pair{4095U, 0x1FFE0000}, std::pair{4096U, 0}, std::pair{4097U, MBIT_BYTES},
          std::pair{8192U + 3, 3 * MBIT_BYTES}, std::pair{0xFFFFFFFFU, 0x1FFE0000}}) {
        CSimulatorStream limited;
        EXPECT_EQ(0, limited.SetBandWidth(mbit));
        EXPECT_EQ(bytes, limited.Send(anything, 0xFFFFFFFFU)) << mbit;
    }
}

TEST_F(SimulatorStream, ALowerBandwidthCountsAtOnce) {
    stream.SetBandWidth(2);
    EXPECT_EQ(150'000, send(150'000));
    stream.SetBandWidth(1);
    EXPECT_EQ(0, send(1)) << "more than it allows has been sent already";
    stream.SetBandWidth(2);
    EXPECT_EQ(2 * MBIT_BYTES - 150'000, send(200'000));
}

TEST_F(SimulatorStream, WriteVOfNothing) {
    stream.SetBandWidth(1);
    std::string text = "hello";
    const iovec one = element(text);
    EXPECT_EQ(-1, stream.WriteV(nullptr, 1));
    EXPECT_EQ(-1, stream.WriteV(nullptr, 0));
    EXPECT_EQ(0, stream.WriteV(&one, 0));
    EXPECT_EQ(0, stream.WriteV(&one, -1));
}

TEST_F(SimulatorStream, WriteVStopsAfterTheElementThatIsCutShort) {
    stream.SetBandWidth(1);
    std::string text(100'000, 'w');
    const std::vector<iovec> elements(3, element(text));
    EXPECT_EQ(MBIT_BYTES, stream.WriteV(elements.data(), 3));
    EXPECT_EQ(0, stream.WriteV(elements.data(), 3));
    s_now_ms += 1001;
    EXPECT_EQ(100'000, stream.WriteV(elements.data(), 1));
}

TEST_F(SimulatorStream, WriteVGoesOnAfterAnEmptyElement) {
    stream.SetBandWidth(1);
    std::string text = "hello";
    const std::vector<iovec> elements{{0, nullptr}, element(text), {0, nullptr}, element(text)};
    EXPECT_EQ(10, stream.WriteV(elements.data(), 4));
}

TEST_F(SimulatorStream, WriteVRenewsThePeriodBeforeEachElement) {
    setSimulatorClock([] { return s_now_ms += 1001; });
    stream.SetBandWidth(1);
    std::string text(MBIT_BYTES, 'w');
    const std::vector<iovec> elements(3, element(text));
    EXPECT_EQ(3 * MBIT_BYTES, stream.WriteV(elements.data(), 3));
}

TEST_F(SimulatorStream, TheTotalOfWriteVStaysAnInt) {
    setSimulatorClock([] { return s_now_ms += 1001; });
    stream.SetBandWidth(4095);
    char byte = 'x';
    const std::vector<iovec> elements(8, iovec{0x1FFE0000, &byte});  // 4 GiB, which nobody reads
    EXPECT_EQ(INT_MAX, stream.WriteV(elements.data(), 8));
}

TEST_F(SimulatorStream, AStreamThatWasTakenAwaySendsNothing) {
    SSocketPair pair;
    stream.SetBandWidth(1);
    stream.SetRealSocket(&pair.client);
    EXPECT_EQ(5, stream.Send("hello", 5));
    stream.SetRealSocket(nullptr);
    std::string text = "hello";
    const std::vector<iovec> elements{{0, nullptr}, element(text)};
    EXPECT_EQ(-1, stream.GetHandle());
    EXPECT_EQ(0, stream.Send("hello", 5));
    EXPECT_EQ(0, stream.WriteV(elements.data(), 2));
}

TEST_F(SimulatorStream, AnObjectMadeWithoutMemoryFails) {
    SSocketPair pair;
    const TestSupport::CScarceMemory none(0);
    CSimulatorStream poor;
    std::string text = "hello";
    const iovec one = element(text);
    poor.SetRealSocket(&pair.client);
    EXPECT_EQ(-1, poor.SetBandWidth(1));
    EXPECT_EQ(-1, poor.Send("hello", 5));
    EXPECT_EQ(-1, poor.WriteV(&one, 1));
}

TEST(SimulatorStreamPair, BytesReachThePeerUpToTheBandwidth) {
    SLimitedPair limited;
    const std::vector<char> data(200'000, 'd');
    std::size_t sent = 0;
    while (const int now = limited.stream.Send(data.data(), 50'000)) {
        ASSERT_GT(now, 0);
        EXPECT_EQ(static_cast<std::size_t>(now),
                  receive(limited.pair.server, static_cast<std::size_t>(now)).size());
        sent += static_cast<std::size_t>(now);
    }
    EXPECT_EQ(std::size_t{MBIT_BYTES}, sent);
    s_now_ms += 1001;
    EXPECT_EQ(5, limited.stream.Send("again", 5));
    EXPECT_EQ("again", receive(limited.pair.server, 5));
}

TEST(SimulatorStreamPair, WriteVSendsTheElementsInOrder) {
    SLimitedPair limited;
    std::string one = "one ";
    std::string two = "two ";
    std::string three = "three";
    const std::vector<iovec> elements{element(one), {0, nullptr}, element(two), element(three)};
    EXPECT_EQ(13, limited.stream.WriteV(elements.data(), 4));
    EXPECT_EQ("one two three", receive(limited.pair.server, 13));
}

TEST(SimulatorStreamPair, WhatTheStreamDoesNotTakeIsNotCounted) {
    SLimitedPair limited;
    limited.stream.SetBandWidth(4095);
    TestSupport::fill(limited.pair.client);
    std::string text = "hello";
    const std::vector<iovec> elements(2, element(text));
    EXPECT_EQ(0, limited.stream.Send("x", 1)) << "the stream says try again";
    EXPECT_EQ(0, limited.stream.WriteV(elements.data(), 2));
}

TEST(SimulatorStreamPair, AFailureOfTheStreamIsPassedOn) {
    SLimitedPair limited;
    CLogCapture log;
    std::string text = "hello";
    const std::vector<iovec> elements{element(text), {5, nullptr}, element(text)};
    EXPECT_EQ(-1, limited.stream.Send(nullptr, 5));
    EXPECT_EQ(1, log.count(2, "Send : send failed! buf["));
    EXPECT_EQ(-1, limited.stream.WriteV(elements.data(), 3)) << "in place of the five bytes before it";
    EXPECT_EQ("hello", receive(limited.pair.server, 5));
}

TEST(SimulatorStreamPair, AUsedUpPeriodDoesNotAskTheStream) {
    SLimitedPair limited;
    limited.stream.SetBandWidth(0);
    CLogCapture log;
    EXPECT_EQ(0, limited.stream.Send(nullptr, 5));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SimulatorStreamPair, DestroyingItLeavesTheSocketOpen) {
    SSocketPair pair;
    CLogCapture log;
    {
        CSimulatorStream stream;
        stream.SetRealSocket(&pair.client);
        EXPECT_EQ(pair.client.GetHandle(), stream.GetHandle());
    }
    EXPECT_EQ(5, pair.client.Send("hello", 5));
    EXPECT_EQ("hello", receive(pair.server, 5));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SimulatorStreamPair, TheReactorTakesItForTheStream) {
    SLimitedPair limited;
    std::atomic<int> received{0};
    const TestSupport::CPublicPool pool;
    TestSupport::CScopedHandler handler;
    handler->on_input = [&](int fd) {
        EXPECT_EQ(limited.pair.client.GetHandle(), fd);
        char text[8];
        const int length = limited.pair.client.Recv(text, sizeof text);
        if (length > 0) received += length;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(limited.stream, EventMask::Read, 0));
    EXPECT_EQ(5, limited.pair.server.Send("hello", 5));
    EXPECT_TRUE(TestSupport::waitUntil([&received] { return received == 5; }));
    EXPECT_EQ(0, handler->RemoveSock(limited.pair.client));
    EXPECT_FALSE(TestSupport::sockState(limited.stream.GetHandle()).registered);
}

TEST(SimulatorStreamPair, ByTheRealClockAPeriodLastsASecond) {
    const std::uint64_t start_ms = Plinth::CTime::getCurrentMilliSecond();
    CSimulatorStream stream;
    stream.SetBandWidth(1);
    const std::vector<char> data(200'000, 'd');
    EXPECT_EQ(MBIT_BYTES, stream.Send(data.data(), 200'000));
    EXPECT_TRUE(TestSupport::waitUntil([&] { return stream.Send(data.data(), 200'000) == MBIT_BYTES; }));
    EXPECT_GE(Plinth::CTime::getCurrentMilliSecond() - start_ms, 1000U);
}

}  // namespace
}  // namespace Veltro::Ravelo
