#include "Debug/CallbackTimes.h"

#include <gtest/gtest.h>

#include "Support/Gate.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;

struct SKind {};

class CallbackTimes : public testing::Test {
protected:
    ~CallbackTimes() override { Ravelo::CallbackTimes::switchOn(false); }
    static void note(std::uint64_t us) {
        Ravelo::CallbackTimes::note(typeid(SKind), Ravelo::CallbackTimes::now() - us);
    }
};

TEST_F(CallbackTimes, AreOffAtFirst) {
    EXPECT_FALSE(Ravelo::CallbackTimes::isOn());
    EXPECT_TRUE(Ravelo::CallbackTimes::list().empty());
}

TEST_F(CallbackTimes, KnowTheLongestAndWhat99Of100Take) {
    Ravelo::CallbackTimes::switchOn(true);
    for (int i = 0; i < 990; ++i) note(100'000);
    for (int i = 0; i < 10; ++i) note(50'000'000);
    const auto times = Ravelo::CallbackTimes::list();
    ASSERT_EQ(times.size(), 1U);
    EXPECT_EQ(times[0].callbacks, 1'000U);
    EXPECT_GE(times[0].longest_us, 50'000'000U);
    EXPECT_LT(times[0].longest_us, 51'000'000U);
    EXPECT_GE(times[0].p99_us, 100'000U);
    EXPECT_LE(times[0].p99_us, 130'000U);
}

TEST_F(CallbackTimes, StartAnewWhenSwitchedOn) {
    Ravelo::CallbackTimes::switchOn(true);
    note(5);
    Ravelo::CallbackTimes::switchOn(false);
    EXPECT_EQ(Ravelo::CallbackTimes::list().size(), 1U);
    Ravelo::CallbackTimes::switchOn(true);
    EXPECT_TRUE(Ravelo::CallbackTimes::list().empty());
}

TEST_F(CallbackTimes, TimeTheCallbacksOfAPool) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    handler->on_message = [](long, unsigned, long) {
        Plinth::sleepMilliSecond(20);
        return 0;
    };
    Ravelo::CallbackTimes::switchOn(true);
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(TestSupport::waitUntil([] { return Ravelo::CallbackTimes::list().size() == 1; }));
    const auto times = Ravelo::CallbackTimes::list();
    EXPECT_EQ(times[0].type, "Veltro::TestSupport::CTestHandler");
    EXPECT_GE(times[0].longest_us, 20'000U);
    closeAndWait(handler);
}

}  // namespace
}  // namespace Veltro::Ravelo
