#include "Core/SockTrace.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Core/StreamPair.h"
#include "Debug/DebugControl.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"
#include "Support/NeutralText.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;
using TestSupport::replaced;
using TestSupport::replacedNumber;
using TestSupport::SStreamPair;

constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;

/// A line and the verbosity that it asks for at least.
struct SExpected {
    unsigned level;
    std::string text;
};

/// Traces the near end of a connection at each verbosity in turn.
class SockTrace : public testing::TestWithParam<unsigned> {
protected:
    SockTrace() {
        CDebugControl::sm_sock_level.store(GetParam());
        CDebugControl::selectSocks({fd});
        CDebugControl::sm_sock_on.store(true);
    }
    ~SockTrace() override {
        CDebugControl::ResetSockDumpRule();
        handler->RemoveSock(pair.near_end);
        closeAndWait(handler);
    }

    /// The lines of the trace; what differs from run to run stands as OBJ, ID, FD, T and P.
    std::vector<std::string> traced() const {
        std::vector<std::string> lines;
        for (const auto& line : log.lines()) {
            if (line.text.find("<Ravelo Debug>") == std::string::npos) continue;
            EXPECT_EQ(line.level, TRACE);
            lines.push_back(neutral(line.text));
        }
        return lines;
    }
    static std::vector<std::string> wanted(const std::vector<SExpected>& expected) {
        std::vector<std::string> lines;
        for (const SExpected& line : expected) {
            if (line.level <= GetParam()) lines.push_back("<Ravelo Debug>" + line.text + "\n");
        }
        return lines;
    }
    bool waitForEnd(const std::string& what) { return log.waitFor(TRACE, what + " end obj_id"); }

    const CPublicPool pool;
    CTestHandler* handler = new CTestHandler;
    SStreamPair pair;
    const int fd = pair.near_end.GetHandle();
    CLogCapture log;

private:
    std::string neutral(std::string text) const {
        char address[32];
        std::snprintf(address, sizeof address, "%p", static_cast<const void*>(handler));
        const std::string id = std::to_string(handler->GetID());
        text = replaced(text, std::string("obj:") + address + ",", "obj:OBJ,");
        text = replaced(replaced(text, "obj_id:" + id, "obj_id:ID"), "obj-id:" + id, "obj-id:ID");
        text = replacedNumber(replacedNumber(text, "fd:", "FD"), "socket:", "FD");
        text = replacedNumber(text, "begin at ", "T");
        if (text.find("container:") != std::string::npos) text = replacedNumber(text, "time_out:", "T", 3);
        return replacedNumber(text, "container:", "P");
    }
};

const std::string OBJECT = "obj:OBJ, obj_id:ID, obj_type:Veltro::TestSupport::CTestHandler";

TEST_P(SockTrace, RegisteringChangingAndRemoving) {
    handler->RegisterSock(pair.near_end, EventMask::Read, 5'000'000);
    handler->RegisterSock(pair.near_end, EventMask::Except, 3'000'000);
    handler->UnregisterSock(pair.near_end, EventMask::Except);
    handler->RemoveSock(pair.near_end);
    EXPECT_EQ(
        traced(),
        wanted({{1, "CNetSock::RegisterSock " + OBJECT + ", socket:FD, mask:1, time_out:5000"},
                {0,
                 "CSockTimer::Add SEvent: obj-id:ID, event_mask:1, revents:0, set_time:5000, time_out:T, "
                 "container:P"},
                {1, "CNetSock::register_new_event " + OBJECT + ", socket:FD, mask:1, time_out:5000"},
                {1, "CNetSock::RegisterSock " + OBJECT + ", socket:FD, mask:4, time_out:3000"},
                {0, "CNetSock::modify_exist_event " + OBJECT +
                        ", socket:FD, mask:4, time_out:3000, m_set_time:5000, m_revents:0."},
                {2, "CNetSock::reset_timer obj_id:ID, timt_out:3000, socket:FD."},
                {0,
                 "CSockTimer::Reset SEvent: obj-id:ID, event_mask:1, revents:0, set_time:3000, time_out:T, "
                 "container:P"},
                {1, "CNetSock::UnregisterSock " + OBJECT + ", socket:FD, mask:4."},
                {0, "CNetSock::RemoveSock " + OBJECT + ", socket:FD."},
                {0, "Enter CNetSock::remove_sock obj_id:ID, socket:FD."},
                {0,
                 "CSockTimer::Delete SEvent: obj-id:ID, event_mask:1, revents:0, set_time:0, time_out:0, "
                 "container:P"}}));
}

TEST_P(SockTrace, ANegativeTimeOutCountsAsNoneAndIsShownAsItIs) {
    handler->RegisterSock(pair.near_end, EventMask::Read, -5'000'999);
    handler->RegisterSock(pair.near_end, EventMask::Read, -999);
    handler->RemoveSock(pair.near_end);
    EXPECT_EQ(traced(),
              wanted({{1, "CNetSock::RegisterSock " + OBJECT + ", socket:FD, mask:1, time_out:-5000"},
                      {1, "CNetSock::register_new_event " + OBJECT + ", socket:FD, mask:1, time_out:-5000"},
                      {1, "CNetSock::RegisterSock " + OBJECT + ", socket:FD, mask:1, time_out:0"},
                      {0, "CNetSock::modify_exist_event " + OBJECT +
                              ", socket:FD, mask:1, time_out:0, m_set_time:0, m_revents:0."},
                      {0, "CNetSock::RemoveSock " + OBJECT + ", socket:FD."},
                      {0, "Enter CNetSock::remove_sock obj_id:ID, socket:FD."}}));
}

TEST_P(SockTrace, ADispatch) {
    handler->on_input = [this](int) {
        char byte;
        pair.near_end.Recv(&byte, 1);
        return 30'000'000;
    };
    {
        CDebugControl::sm_sock_on.store(false);
        ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
        CDebugControl::sm_sock_on.store(true);
    }
    pair.far_end.Send("x", 1);
    ASSERT_TRUE(log.waitFor(TRACE, "CSockTimer::Add"));
    std::vector<std::string> lines = traced();
    EXPECT_EQ(
        lines,
        wanted({{1, "CNetSock::handle_net " + OBJECT + " handle sock event begin at T us, fd:FD, revents:1."},
                {0,
                 "Enter CNetSock::handle_netevent handle_net end obj_id:ID socket:FD, m_revents:1, "
                 "m_event_mask:1 ret:30000000, m_set_time:0."},
                {2, "CNetSock::reset_timer obj_id:ID, timt_out:30000, socket:FD."},
                {0,
                 "CSockTimer::Add SEvent: obj-id:ID, event_mask:1, revents:0, set_time:30000, time_out:T, "
                 "container:P"}}));
}

TEST_P(SockTrace, ATimeOut) {
    handler->on_input_timeout = [](int) { return 7; };
    CDebugControl::sm_sock_on.store(false);
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 1'000), 0);
    CDebugControl::sm_sock_on.store(true);
    ASSERT_TRUE(waitForEnd("handle_timeout"));
    std::vector<std::string> lines = traced();
    if (!lines.empty() && lines.back().find("reset_timer") != std::string::npos) lines.pop_back();
    EXPECT_EQ(lines,
              wanted({{1, "CNetSock::handle_timeout " + OBJECT +
                              " handle sock timeout begin at T us, fd:FD, revents:256."},
                      {0,
                       "CNetSock::handle_netevent handle_timeout end obj_id:ID socket:FD, m_revents:256, "
                       "m_event_mask:1 ret:-1, m_set_time:0."}}));
}

TEST_P(SockTrace, ARemovalInsideOfTheCallback) {
    handler->on_input = [this](int) {
        handler->RemoveSock(pair.near_end);
        handler->RemoveSock(pair.near_end);
        return 0;
    };
    CDebugControl::sm_sock_on.store(false);
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    CDebugControl::sm_sock_on.store(true);
    pair.far_end.Send("x", 1);
    ASSERT_TRUE(log.waitFor(TRACE, "remove_sock"));
    EXPECT_EQ(
        traced(),
        wanted({{1, "CNetSock::handle_net " + OBJECT + " handle sock event begin at T us, fd:FD, revents:1."},
                {0, "CNetSock::RemoveSock &1 " + OBJECT + ", socket:FD."},
                {0, "CNetSock::RemoveSock &2 " + OBJECT + ", socket:FD."},
                {0,
                 "Enter CNetSock::handle_netevent handle_net end obj_id:ID socket:FD, m_revents:1024, "
                 "m_event_mask:32 ret:0, m_set_time:0."},
                {0, "Enter CNetSock::remove_sock obj_id:ID, socket:FD."}}));
}

TEST_P(SockTrace, AnEventWhoseOwnerHasGone) {
    auto* gone = new CTestHandler;
    const std::string id = std::to_string(gone->GetID());
    CDebugControl::sm_sock_on.store(false);
    ASSERT_EQ(gone->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    closeAndWait(gone);
    CDebugControl::sm_sock_on.store(true);
    pair.far_end.Send("x", 1);
    ASSERT_TRUE(waitForEnd("handle_net"));
    handler->RemoveSock(pair.near_end);
    EXPECT_EQ(log.count(TRACE, "<Ravelo Debug>CNetSock::handle_net obj_id:" + id +
                                   ", handle sock net event: not found obj.\n") > 0,
              GetParam() >= 1);
}

TEST_P(SockTrace, ATimeOutWhoseOwnerHasGone) {
    auto* gone = new CTestHandler;
    const std::string id = std::to_string(gone->GetID());
    CDebugControl::sm_sock_on.store(false);
    ASSERT_EQ(gone->RegisterSock(pair.near_end, EventMask::Read, 1'000), 0);
    closeAndWait(gone);
    CDebugControl::sm_sock_on.store(true);
    ASSERT_TRUE(waitForEnd("handle_timeout"));
    EXPECT_EQ(log.count(TRACE, "<Ravelo Debug>CNetSock::handle_timeout obj_id:" + id +
                                   ", handle sock timeout: not found obj.\n"),
              GetParam() >= 1 ? 1 : 0);
}

TEST_P(SockTrace, AnotherDescriptorIsNotTraced) {
    handler->RegisterSock(pair.far_end, EventMask::Read, 5'000'000);
    handler->RemoveSock(pair.far_end);
    EXPECT_TRUE(traced().empty());
}

TEST_P(SockTrace, SwitchedOffNothingIsTraced) {
    CDebugControl::sm_sock_on.store(false);
    handler->RegisterSock(pair.near_end, EventMask::Read, 5'000'000);
    handler->RemoveSock(pair.near_end);
    EXPECT_TRUE(traced().empty());
}

TEST(SockTraceLevel, ALineOfAPositiveOwnerIsAnError) {
    CDebugControl::sm_sock_fd_all.store(true);
    CDebugControl::sm_sock_on.store(true);
    SEvent record;
    record.key = 7;
    const CLogCapture log;
    for (const std::int64_t owner : {5, -5}) {
        record.obj_id.store(owner);
        Ravelo::SockTrace::freeSock(record);
    }
    CDebugControl::ResetSockDumpRule();
    EXPECT_EQ(
        log.count(Plinth::LOG_LEVEL_ERROR, "<Ravelo Debug>Enter CNetSock::remove_sock obj_id:5, socket:7.\n"),
        1);
    EXPECT_EQ(log.count(TRACE, "<Ravelo Debug>Enter CNetSock::remove_sock obj_id:-5, socket:7.\n"), 1);
}

INSTANTIATE_TEST_SUITE_P(AtVerbosity, SockTrace, testing::Values(0U, 1U, 2U));

}  // namespace
}  // namespace Veltro::Ravelo
