// What a callback's reads have left in its socket.
#include "Socket/ReadWatch.h"

#include "Socket/SocketApi.h"
#include "Support/SocketPair.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
using ELeft = CReadWatch::ELeft;

namespace {

int receiveInto(CSockStream& stream, unsigned length) {
    char bytes[4];
    return SocketApi::recv(stream.GetHandle(), bytes, length);
}

}  // namespace

TEST(ReadWatch, AShortReadAndAReadOfNothingLeaveNothing) {
    if (isWindows()) GTEST_SKIP() << "select() asks about every socket anew: nobody needs to know";
    SSocketPair pair;
    EXPECT_EQ(6, pair.client.Send("abcdef", 6));
    EXPECT_TRUE(waitReadable(pair.server));
    CReadWatch::ofThread().begin(pair.server.GetHandle());
    EXPECT_EQ(4, receiveInto(pair.server, 4));
    EXPECT_EQ(ELeft::Unknown, CReadWatch::ofThread().left());
    EXPECT_EQ(2, receiveInto(pair.server, 4));
    EXPECT_EQ(ELeft::Nothing, CReadWatch::ofThread().left());
    CReadWatch::ofThread().begin(pair.server.GetHandle());
    EXPECT_EQ(ELeft::Unknown, CReadWatch::ofThread().left());
    EXPECT_EQ(-1, receiveInto(pair.server, 4));
    EXPECT_EQ(ELeft::Nothing, CReadWatch::ofThread().left());
}

TEST(ReadWatch, TheEndOfAConnectionIsNotNothing) {
    SSocketPair pair;
    pair.client.Close();
    EXPECT_TRUE(waitReadable(pair.server));
    CReadWatch::ofThread().begin(pair.server.GetHandle());
    EXPECT_EQ(0, receiveInto(pair.server, 4));
    EXPECT_EQ(ELeft::Unknown, CReadWatch::ofThread().left());
}

TEST(ReadWatch, OnlyReadsOfTheWatchedSocketCount) {
    SSocketPair pair;
    CReadWatch::ofThread().begin(pair.server.GetHandle());
    CReadWatch::note(pair.server.GetHandle(), ELeft::Inside);
    EXPECT_EQ(-1, receiveInto(pair.client, 4));
    CReadWatch::note(pair.client.GetHandle(), ELeft::Nothing);
    EXPECT_EQ(ELeft::Inside, CReadWatch::ofThread().left());
}
