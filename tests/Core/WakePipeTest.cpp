#include "Core/WakePipe.h"

#include <gtest/gtest.h>

#include "Socket/SocketApi.h"
#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

bool isReadable(const CWakePipe& pipe) {
    unsigned ready = 0;
    return SocketApi::waitOne(pipe.readFd(), SocketApi::WAIT_READ, 0, &ready) == 1;
}

TEST(WakePipe, ManyWakesLeaveExactlyOneByte) {
    CWakePipe pipe;
    ASSERT_EQ(pipe.Create(), 0);
    for (int i = 0; i < 100; ++i) pipe.wake();
    unsigned ready = 0;
    ASSERT_EQ(SocketApi::waitOne(pipe.readFd(), SocketApi::WAIT_READ, 10'000'000, &ready), 1);
    char bytes[256];
    EXPECT_EQ(SocketApi::recv(pipe.readFd(), bytes, sizeof bytes), 1);
}

TEST(WakePipe, CanBeWokenAgainAfterItWasDrained) {
    CWakePipe pipe;
    ASSERT_EQ(pipe.Create(), 0);
    for (int round = 0; round < 3; ++round) {
        pipe.wake();
        unsigned ready = 0;
        ASSERT_EQ(SocketApi::waitOne(pipe.readFd(), SocketApi::WAIT_READ, 10'000'000, &ready), 1);
        pipe.drain();
        EXPECT_FALSE(isReadable(pipe));
    }
}

TEST(WakePipe, DrainingWithoutAByteDoesNothing) {
    CWakePipe pipe;
    ASSERT_EQ(pipe.Create(), 0);
    pipe.drain();
    EXPECT_FALSE(isReadable(pipe));
}

}  // namespace
}  // namespace Veltro::Ravelo
