#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include "Support/LogCapture.h"
#include "Support/RawTls.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::receive;
using TestSupport::sendText;
using TestSupport::STlsPair;

TEST(SslStream, BytesPassBothWays) {
    STlsPair pair;
    EXPECT_EQ(4, sendText(pair.client, "ping"));
    EXPECT_EQ("ping", receive(pair.server, 4));
    EXPECT_EQ(4, sendText(pair.server, "pong"));
    EXPECT_EQ("pong", receive(pair.client, 4));
}

}  // namespace
}  // namespace Veltro::Ravelo
