#include "R3/R3Trace.h"

#include <gtest/gtest.h>

#include <string>

#include "R3/Terminal.h"
#include "Support/Gate.h"
#include "Support/NeutralText.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTerminal;
using TestSupport::CTestHandler;

class R3Trace : public testing::Test {
protected:
    ~R3Trace() override {
        Ravelo::R3Trace::sm_events.store(false);
        closeAndWait(handler);
    }
    /// What a line begins with; "T" stands for the thread.
    std::string begin() const {
        char text[128];
        std::snprintf(text, sizeof text, "thread:T, object:%p,class:Veltro::TestSupport::CTestHandler, ",
                      static_cast<const void*>(handler));
        return text;
    }
    static std::string neutral(const std::string& line) {
        return TestSupport::replacedNumber(TestSupport::replacedNumber(line, "thread:", "T"), " at ", "U");
    }

    const CPublicPool pool;
    CTestHandler* handler = new CTestHandler;
    CTerminal terminal;
};

TEST_F(R3Trace, TellsTheBeginningAndTheEndOfAMessage) {
    handler->on_message = [](long, unsigned, long) { return 0; };
    Ravelo::R3Trace::sm_events.store(true);
    handler->Notify(handler->GetID(), 17, -3);
    ASSERT_TRUE(terminal.waitFor(2));
    EXPECT_EQ(neutral(terminal.chunks()[0]), begin() + "handle message begin at U us,msg:17,attach:-3\r\n");
    EXPECT_EQ(neutral(terminal.chunks()[1]), begin() + "handle message end at U us,msg:17,attach:-3\r\n");
}

TEST_F(R3Trace, TellsTheBeginningAndTheEndOfATimer) {
    handler->on_timeout = [](long) { return -1; };
    Ravelo::R3Trace::sm_events.store(true);
    EXPECT_LT(handler->SetTimer(3'000), 0);
    ASSERT_TRUE(terminal.waitFor(2));
    EXPECT_EQ(neutral(terminal.chunks()[0]), begin() + "handle message begin at U us\r\n");
    EXPECT_EQ(neutral(terminal.chunks()[1]), begin() + "handle message end at U us\r\n");
}

TEST_F(R3Trace, TellsTheCloseMessageToo) {
    auto* other = new CTestHandler;
    Ravelo::R3Trace::sm_events.store(true);
    closeAndWait(other);
    ASSERT_TRUE(terminal.waitFor(2));
    EXPECT_NE(terminal.chunks()[0].find(",msg:12,attach:0\r\n"), std::string::npos);
    Ravelo::R3Trace::sm_events.store(false);
}

TEST_F(R3Trace, SwitchedOffTellsNothing) {
    CGate called;
    handler->on_message = [&called](long, unsigned, long) {
        called.open();
        return 0;
    };
    handler->Notify(handler->GetID(), 17, 0);
    EXPECT_TRUE(called.pass());
    EXPECT_TRUE(terminal.chunks().empty());
}

}  // namespace
}  // namespace Veltro::Ravelo
