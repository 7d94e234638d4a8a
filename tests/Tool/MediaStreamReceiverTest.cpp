// One receiver's modes and states, what is logged when a call does not fit them, and what its owner is told.
#include <Plinth/ThreadManager.h>

#include <cstdio>
#include <string>

#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"
#include "Tool/PacedReceivers.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;
using Messages = std::vector<CListener::SMessage>;
using Times = std::vector<std::int64_t>;

constexpr auto STREAM = CMediaStreamReceiver::RECEIVE_MODE_STREAM;
constexpr auto PASSIVE = CMediaStreamReceiver::RECEIVE_MODE_PASSIVE;
constexpr auto WRITE = CMediaStreamReceiver::RECEIVE_MODE_WRITE;

/// One line of a level about a receiver, and no other.
void expectOneLine(const CLogCapture& log, int level, const CMediaStreamReceiver* receiver,
                   const std::string& text) {
    char prefix[100];
    std::snprintf(prefix, sizeof prefix, "] this:%p tid:%d, ", static_cast<const void*>(receiver),
                  static_cast<int>(Plinth::getCurrentThreadId()));
    const auto lines = log.lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(level, lines[0].level);
    EXPECT_EQ(".\\Src\\Tool\\MediaStreamReceiver.cpp", lines[0].file);
    EXPECT_NE(std::string::npos, lines[0].text.find(prefix + text)) << lines[0].text;
}

const std::string STARTED =
    "Veltro::Ravelo::CMediaStreamReceiver::StartReceive : this receiver already started!\n";
const std::string NO_THREAD =
    "Veltro::Ravelo::CMediaStreamReceiver::StartReceive : Thread start failed. error:";
const std::string CANNOT_STOP =
    "Veltro::Ravelo::CMediaStreamReceiver::StopReceive : Can't stop a receiver not in running state!\n";
const std::string EXCEPTION = "MediaStreamReceiver do_receive socket exception, error:";

std::uint32_t stateOf(const CMediaStreamReceiver* receiver) {
    return SMediaStreamReceiverRecord::of(*receiver).m_state;
}

std::int64_t offsetOf(const CMediaStreamReceiver* receiver) {
    auto& record = SMediaStreamReceiverRecord::of(*receiver);
    Plinth::CLockGuard guard(record.mutex);
    return record.m_start_offset;
}

TEST(MediaStreamReceiver, TheModesHaveTheirNumbers) {
    EXPECT_EQ(0U, unsigned{CMediaStreamReceiver::RECEIVE_MODE_STREAM});
    EXPECT_EQ(1U, unsigned{CMediaStreamReceiver::RECEIVE_MODE_PASSIVE});
    EXPECT_EQ(2U, unsigned{CMediaStreamReceiver::RECEIVE_MODE_WRITE});
}

TEST(MediaStreamReceiver, AReceiverRestsUntilItsStart) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.make();
    pool.start();
    pool.time.run(10 * PERIOD_US);
    EXPECT_EQ(0U, receiver->calls());
    receiver->Close();
    EXPECT_TRUE(pool.waitClosed(1));
}

TEST(MediaStreamReceiver, AStreamIsCalledAtEveryTickOfTheNormalThreads) {
    CPacedPool pool;
    const CTestReceiver* receiver = pool.start(STREAM);
    pool.time.run(5 * PERIOD_US);
    EXPECT_EQ((Times{0, 40'000, 60'000, 80'000, 100'000}), receiver->at_us[STREAM]);
    EXPECT_EQ(5U, receiver->calls());
}

TEST(MediaStreamReceiver, AWriterIsCalledAtEveryTickOfTheFastThreads) {
    CPacedPool pool;
    const CTestReceiver* receiver = pool.start(WRITE);
    pool.time.run(4 * FAST_PERIOD_US);
    EXPECT_EQ((Times{0, 80'000, 120'000, 160'000}), receiver->at_us[WRITE]);
    EXPECT_EQ(4U, receiver->calls());
}

TEST(MediaStreamReceiver, APassiveReceiverIsCalledOnTheNormalThreads) {
    CPacedPool pool;
    const CTestReceiver* receiver = pool.start(PASSIVE);
    pool.time.run(3 * PERIOD_US);
    EXPECT_EQ((Times{0, 40'000, 60'000}), receiver->at_us[PASSIVE]);
    EXPECT_EQ(3U, receiver->calls());
}

TEST(MediaStreamReceiver, CallbacksComeOnAThreadOfTheirOwn) {
    CPacedPool pool;
    for (const auto mode : {STREAM, PASSIVE, WRITE}) {
        std::string name;
        CTestReceiver* receiver = pool.make(mode);
        receiver->on_call = [&name] {
            name = Plinth::CThreadManager::getThreadNameByID(Plinth::getCurrentThreadId());
            return 0;
        };
        receiver->StartReceive(0, 1.0F);
        pool.time.rest();
        EXPECT_EQ("stream_receiver_thread", name);
        receiver->StopReceive();
    }
}

TEST(MediaStreamReceiver, TheDefaultCallbacksDoNothing) {
    struct CPlain : CMediaStreamReceiver {
        int handle_close(CNetHandler*) override {
            delete this;
            return 0;
        }
    };
    CPacedPool pool;
    const CListener listener;
    CLogCapture log;
    for (const auto mode : {STREAM, PASSIVE, WRITE}) {
        auto* receiver = new CPlain;
        EXPECT_EQ(0, receiver->handle_stream_input());
        EXPECT_EQ(0, receiver->handle_passive_input());
        EXPECT_EQ(0, receiver->handle_stream_write());
        receiver->SetReceiveMode(mode);
        receiver->WaitException(listener.id());
        receiver->StartReceive(0, 1.0F);
    }
    pool.time.run(4 * FAST_PERIOD_US);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(listener.messages().empty());
}

TEST(MediaStreamReceiver, AModeSetAfterTheStartChangesTheCallbackAndNotTheThread) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.start(STREAM);
    receiver->SetReceiveMode(WRITE);
    pool.time.run(4 * PERIOD_US);
    EXPECT_EQ((Times{0}), receiver->at_us[STREAM]);
    EXPECT_EQ((Times{40'000, 60'000, 80'000}), receiver->at_us[WRITE]);
}

TEST(MediaStreamReceiver, AnUnknownModeIsNotCalled) {
    CPacedPool pool;
    const CTestReceiver* receiver = pool.start(static_cast<CMediaStreamReceiver::receiver_mode>(3));
    pool.time.run(4 * PERIOD_US);
    EXPECT_EQ(0U, receiver->calls());
}

TEST(MediaStreamReceiver, SetFrameRateOnlyLogs) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.start();
    {
        CLogCapture log;
        receiver->SetFrameRate(25);
        expectOneLine(log, Plinth::LOG_LEVEL_WARNING, receiver,
                      "this interface SetFrameRate is discarded!!"
                      "Veltro::Ravelo::CMediaStreamReceiver::SetFrameRate\n");
    }
    pool.time.run(2 * PERIOD_US);
    EXPECT_EQ(2U, receiver->calls());
}

TEST(MediaStreamReceiver, TheOffsetIsKeptAtTheRateOfOneOnly) {
    CPacedPool pool;
    for (const auto& [rate, kept] : {std::pair{2.0F, 0}, {1.0F, 5'000'000}, {0.5F, 0}, {1.0001F, 0}}) {
        CTestReceiver* receiver = pool.make();
        receiver->StartReceive(5'000'000, rate);
        EXPECT_EQ(kept, offsetOf(receiver)) << rate;
    }
}

TEST(MediaStreamReceiver, AResumeTakesTheNewOffsetAndRate) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.make();
    receiver->StartReceive(5'000'000, 1.0F);
    receiver->StopReceive();
    receiver->StartReceive(7'000'000, 1.0F);
    EXPECT_EQ(7'000'000, offsetOf(receiver));
    receiver->StopReceive();
    receiver->StartReceive(7'000'000, 2.0F);
    EXPECT_EQ(0, offsetOf(receiver));
}

TEST(MediaStreamReceiver, AStoppedReceiverIsNotCalledUntilItIsStartedAgain) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.start();
    receiver->StopReceive();
    pool.time.run(5 * PERIOD_US);
    EXPECT_EQ((Times{0}), receiver->at_us[STREAM]);
    receiver->StartReceive(0, 1.0F);
    pool.time.run(2 * PERIOD_US);
    EXPECT_EQ((Times{0, 120'000, 140'000}), receiver->at_us[STREAM]);
}

TEST(MediaStreamReceiver, AResumeJoinsNoGroup) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.start();
    const auto numbers = RecvThreads::numbers(STREAM);
    CLogCapture log;
    for (int i = 0; i < 3; ++i) {
        receiver->StopReceive();
        receiver->StartReceive(0, 1.0F);
    }
    EXPECT_EQ(numbers, RecvThreads::numbers(STREAM));
    EXPECT_TRUE(log.lines().empty());
}

TEST(MediaStreamReceiver, AStartWhileRunningOnlyLogs) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.make();
    receiver->StartReceive(5'000'000, 1.0F);
    pool.time.rest();
    const auto numbers = RecvThreads::numbers(STREAM);
    {
        CLogCapture log;
        receiver->StartReceive(0, 2.0F);
        expectOneLine(log, Plinth::LOG_LEVEL_ERROR, receiver, STARTED);
    }
    EXPECT_EQ(5'000'000, offsetOf(receiver));
    EXPECT_EQ(numbers, RecvThreads::numbers(STREAM));
    EXPECT_EQ(RECEIVER_RUNNING, stateOf(receiver));
}

TEST(MediaStreamReceiver, AStartAfterCloseOnlyLogs) {
    CPacedPool pool;
    CTestReceiver* fresh = pool.make();
    CTestReceiver* running = pool.start();
    for (CTestReceiver* receiver : {fresh, running}) {
        receiver->AddRef();
        receiver->Close();
        CLogCapture log;
        receiver->StartReceive(0, 1.0F);
        expectOneLine(log, Plinth::LOG_LEVEL_ERROR, receiver, STARTED);
        EXPECT_EQ(RECEIVER_CLOSED, stateOf(receiver));
        receiver->DecRef();
    }
    pool.time.run(2 * PERIOD_US);
    EXPECT_TRUE(pool.waitClosed(2));
}

TEST(MediaStreamReceiver, AStopOfWhatDoesNotRunOnlyLogs) {
    CPacedPool pool;
    CTestReceiver* fresh = pool.make();
    CTestReceiver* stopped = pool.start();
    stopped->StopReceive();
    CTestReceiver* closed = pool.start();
    closed->AddRef();
    closed->Close();
    for (CTestReceiver* receiver : {fresh, stopped, closed}) {
        const std::uint32_t state = stateOf(receiver);
        CLogCapture log;
        receiver->StopReceive();
        expectOneLine(log, Plinth::LOG_LEVEL_ERROR, receiver, CANNOT_STOP);
        EXPECT_EQ(state, stateOf(receiver));
    }
    closed->DecRef();
    fresh->StartReceive(0, 1.0F);
    pool.time.run(2 * PERIOD_US);
    EXPECT_LE(1U, fresh->calls());
}

TEST(MediaStreamReceiver, ANegativeResultIsLoggedAndToldAtEveryTick) {
    for (const auto mode : {STREAM, PASSIVE, WRITE}) {
        CPacedPool pool;
        const CListener listener;
        CTestReceiver* receiver = pool.make(mode);
        receiver->WaitException(listener.id());
        receiver->on_call = [receiver] { return receiver->calls() < 3 ? -1 : 0; };
        const long id = receiver->GetID();
        CLogCapture log;
        receiver->StartReceive(0, 1.0F);
        pool.time.run(5 * FAST_PERIOD_US);
        EXPECT_LE(4U, receiver->calls());
        EXPECT_TRUE(listener.waitFor(2));
        EXPECT_EQ((Messages(2, {id, NOTIFY_STREAM_EXCEPTION, 0})), listener.messages());
        EXPECT_EQ(2, log.count(Plinth::LOG_LEVEL_WARNING, EXCEPTION));
        EXPECT_EQ(2U, log.lines().size());
    }
}

TEST(MediaStreamReceiver, WithoutAnIdANegativeResultIsNotEvenLogged) {
    CPacedPool pool;
    CLogCapture log;
    for (const auto mode : {STREAM, PASSIVE, WRITE}) {
        CTestReceiver* receiver = pool.make(mode);
        receiver->on_call = [] { return -1; };
        receiver->StartReceive(0, 1.0F);
        pool.time.run(2 * FAST_PERIOD_US);
        EXPECT_LE(2U, receiver->calls());
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(MediaStreamReceiver, WhoIsToldMayBeChangedAtAnyTime) {
    CPacedPool pool;
    const CListener first;
    const CListener second;
    CLogCapture log;
    CTestReceiver* receiver = pool.make();
    receiver->on_call = [] { return -1; };
    receiver->WaitException(first.id());
    receiver->StartReceive(0, 1.0F);
    pool.time.rest();
    receiver->WaitException(second.id());
    pool.time.run(2 * PERIOD_US);
    receiver->WaitException(0);
    pool.time.run(2 * PERIOD_US);
    EXPECT_TRUE(first.waitFor(1));
    EXPECT_TRUE(second.waitFor(1));
    EXPECT_EQ(4U, receiver->calls());
    EXPECT_EQ(1U, first.messages().size());
    EXPECT_EQ(1U, second.messages().size());
    EXPECT_EQ(2, log.count(Plinth::LOG_LEVEL_WARNING, EXCEPTION));
}

TEST(MediaStreamReceiver, AReceiverThatNeverStartedIsClosedAtOnce) {
    CPacedPool pool;
    const CListener listener;
    CTestReceiver* receiver = pool.make();
    receiver->WaitException(listener.id());
    const long id = receiver->GetID();
    receiver->Close();
    EXPECT_TRUE(pool.waitClosed(1));
    EXPECT_TRUE(listener.waitFor(1));
    EXPECT_EQ((Messages{{id, NOTIFY_RECEIVER_CLOSED, 0}}), listener.messages());
}

TEST(MediaStreamReceiver, AStartedReceiverIsClosedAtTheNextTick) {
    for (const bool stopped : {false, true}) {
        CPacedPool pool;
        const CListener listener;
        CTestReceiver* receiver = pool.start();
        pool.start();  // on a thread of its own where there are two
        receiver->WaitException(listener.id());
        if (stopped) receiver->StopReceive();
        const long id = receiver->GetID();
        receiver->Close();
        EXPECT_EQ(RECEIVER_CLOSED, stateOf(receiver));
        EXPECT_EQ(1U, receiver->calls());
        EXPECT_TRUE(listener.messages().empty());
        EXPECT_EQ(0, pool.closed());
        pool.time.run(2 * PERIOD_US);
        EXPECT_TRUE(pool.waitClosed(1));
        EXPECT_TRUE(listener.waitFor(1));
        EXPECT_EQ((Messages{{id, NOTIFY_RECEIVER_CLOSED, 0}}), listener.messages());
    }
}

TEST(MediaStreamReceiver, WithoutAnIdNobodyIsToldOfTheEnd) {
    CPacedPool pool;
    CLogCapture log;
    CTestReceiver* receiver = pool.start();
    pool.make()->Close();
    receiver->Close();
    pool.time.run(2 * PERIOD_US);
    EXPECT_TRUE(pool.waitClosed(2));
    EXPECT_TRUE(log.lines().empty());
}

TEST(MediaStreamReceiver, ASecondCloseChangesNothing) {
    CPacedPool pool;
    const CListener listener;
    CTestReceiver* fresh = pool.make();
    CTestReceiver* running = pool.start();
    for (CTestReceiver* receiver : {fresh, running}) {
        receiver->WaitException(listener.id());
        receiver->AddRef();
        receiver->Close();
        receiver->Close();
    }
    pool.time.run(2 * PERIOD_US);
    for (CTestReceiver* receiver : {fresh, running}) {
        receiver->Close();
        receiver->DecRef();
    }
    EXPECT_TRUE(pool.waitClosed(2));
    pool.time.run(2 * PERIOD_US);
    EXPECT_TRUE(listener.waitFor(2));
    EXPECT_EQ(2U, listener.messages().size());
    EXPECT_EQ(2, pool.closed());
}

TEST(MediaStreamReceiver, AReceiverWithoutMemoryIsNotStarted) {
    CPacedPool pool;
    CTestReceiver* receiver = nullptr;
    std::atomic<int> closed{0};
    {
        const CScarceMemory scarce(0);
        receiver = new CTestReceiver(&closed);
    }
    receiver->SetReceiveMode(WRITE);
    receiver->WaitException(-5);
    {
        CLogCapture log;
        receiver->StartReceive(0, 1.0F);
        expectOneLine(log, Plinth::LOG_LEVEL_ERROR, receiver, NO_THREAD);
    }
    {
        CLogCapture log;
        receiver->StopReceive();
        expectOneLine(log, Plinth::LOG_LEVEL_ERROR, receiver, CANNOT_STOP);
    }
    receiver->Close();
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() == 1; }));
}

TEST(MediaStreamReceiver, AReceiverForWhichThereWasNoThreadMayBeStartedAgain) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.make();
    // The thread's object, then what the system needs to start it, where that is taken from the same memory.
    int failures = 0;
    for (; stateOf(receiver) == RECEIVER_CREATED && failures < 10; ++failures) {
        for (const unsigned number : RecvThreads::numbers(STREAM)) EXPECT_EQ(0U, number);
        CLogCapture log;
        {
            const CScarceMemory scarce(failures);
            receiver->StartReceive(0, 1.0F);
        }
        if (stateOf(receiver) == RECEIVER_CREATED) {
            expectOneLine(log, Plinth::LOG_LEVEL_ERROR, receiver, NO_THREAD);
        }
    }
    EXPECT_LE(2, failures);
    pool.time.run(2 * PERIOD_US);
    EXPECT_EQ((Times{0, 40'000}), receiver->at_us[STREAM]);
}

TEST(MediaStreamReceiver, AReceiverThatOutlivesTheLibraryIsNotStarted) {
    std::atomic<int> closed{0};
    auto pool = std::make_unique<CPublicPool>();
    auto* receiver = new CTestReceiver(&closed);
    pool.reset();
    CLogCapture log;
    receiver->StartReceive(0, 1.0F);
    expectOneLine(log, Plinth::LOG_LEVEL_ERROR, receiver, NO_THREAD);
    receiver->Close();
    delete receiver;
}

}  // namespace
}  // namespace Veltro::Ravelo
