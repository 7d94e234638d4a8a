// A session whose output goes through a stream sender.
#include <Ravelo/R3Server.h>

#include <string>
#include <vector>

#include "R3/R3Daemon.h"
#include "R3/R3Trace.h"
#include "Support/LogCapture.h"
#include "Support/SocketPair.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

std::size_t livingSenders() {
    return SStreamSenderRecord::living().snapshot().living.size();
}

/// A server with a session that is bound to a socket which takes what the test says.
class R3SessionSender : public testing::Test {
protected:
    R3SessionSender() : script(take(listener, stream)) {
        EXPECT_EQ(0, session->bind(*owner.handler(), stream));
        const auto daemon = std::make_shared<CR3Daemon>();
        daemon->setSession(session);
        R3Server::setDaemon(daemon);
        script.setRoom(CScriptedSend::EVERYTHING);
    }
    ~R3SessionSender() override {
        R3Trace::sm_tools = false;
        R3Trace::sm_events = false;
        R3Server::setDaemon(nullptr);
        session->unbind();
        EXPECT_TRUE(waitUntil([] { return livingSenders() == 0; }));
    }
    int output() { return session->handle_output(stream.GetHandle()); }
    static int take(SListener& from, CSockStream& to) {
        to.Attach(from.acceptor.Detach());
        return to.GetHandle();
    }

    CLoneWorkerPool pool;
    SListener listener;
    CSockStream stream;
    CMailbox owner;
    CScriptedSend script;
    const std::shared_ptr<CR3Session> session = std::make_shared<CR3Session>();
};

TEST_F(R3SessionSender, SendsWhatIsPrinted) {
    R3Printf("%s %d\n", "number", 7);
    EXPECT_EQ("number 7\r\n", script.take());
    EXPECT_EQ(0, session->output("text"));
    EXPECT_EQ("text", script.take());
}

TEST_F(R3SessionSender, KeepsWhatTheSocketDoesNotTake) {
    script.setRoom(3);
    EXPECT_EQ(0, session->output("hello\n"));
    EXPECT_EQ(0, session->output("again"));
    EXPECT_EQ("hel", script.take());
    script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, output());
    EXPECT_EQ("lo\r\nagain", script.take());
}

TEST_F(R3SessionSender, RefusesWhatItCannotKeepAndGoesOnLater) {
    script.setRoom(0);
    const std::string text(4095, 'x');
    std::size_t kept = 0;
    while (session->output(text.c_str()) == 0) kept += text.size();
    EXPECT_GT(kept + text.size(), CAPACITY_BYTES);
    EXPECT_LE(kept, CAPACITY_BYTES);
    R3Printf("%s", text.c_str());  // waits for nobody
    script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, output());
    EXPECT_EQ(kept, script.take().size());
    EXPECT_EQ(0, session->output("after"));
    EXPECT_EQ("after", script.take());
    EXPECT_TRUE(owner.all().empty());
}

TEST_F(R3SessionSender, TellsItsOwnerOnceThatTheSocketHasFailed) {
    const CLogCapture log;
    script.setFailing(true);
    const int sends = script.sends();
    EXPECT_EQ(-1, session->output("lost"));
    EXPECT_EQ(-1, session->output("lost, too"));
    EXPECT_EQ(sends + 1, script.sends());
    const auto messages = owner.all();
    ASSERT_EQ(1U, messages.size());
    EXPECT_EQ(static_cast<unsigned>(NOTIFY_STREAM_EXCEPTION), messages[0].type);
}

TEST_F(R3SessionSender, AFailureIsNotPrintedForEver) {
    const CLogCapture log;
    script.setFailing(true);
    R3Trace::sm_events = true;
    // The message that tells of a failure is traced, and the trace fails.
    R3Printf("lost\n");
    EXPECT_TRUE(owner.waitCount(1));
    EXPECT_EQ(1U, owner.all().size());
    EXPECT_EQ(1, script.sends());
}

TEST_F(R3SessionSender, MayBeBoundToAnotherSocketAfterAFailure) {
    const CLogCapture log;
    script.setFailing(true);
    EXPECT_EQ(-1, session->output("lost"));
    EXPECT_EQ(-1, session->bind(*owner.handler(), stream));
    EXPECT_EQ(&stream, session->unbind());
    script.setFailing(false);
    EXPECT_EQ(0, session->bind(*owner.handler(), stream));
    EXPECT_EQ(0, session->output("there"));
    EXPECT_EQ("there", script.take());
}

TEST_F(R3SessionSender, SendsNothingOnceItIsUnbound) {
    EXPECT_EQ(&stream, session->unbind());
    EXPECT_EQ(nullptr, session->unbind());
    EXPECT_EQ(0, session->output("nobody hears"));
    EXPECT_EQ(-1, output());
    EXPECT_EQ(0, script.sends());
    EXPECT_TRUE(waitUntil([] { return livingSenders() == 0; }));
}

TEST_F(R3SessionSender, ASessionThatGoesEndsItsSender) {
    EXPECT_EQ(1U, livingSenders());
    {
        SListener other;
        CSockStream socket;
        take(other, socket);
        CR3Session session_of_another;
        EXPECT_EQ(0, session_of_another.bind(*owner.handler(), socket));
        EXPECT_EQ(2U, livingSenders());
    }
    EXPECT_TRUE(waitUntil([] { return livingSenders() == 1; }));
}

TEST_F(R3SessionSender, DoesNotTraceItsOwnOutput) {
    R3Trace::sm_tools = true;
    R3Printf("one line\n");
    EXPECT_EQ("one line\r\n", script.take());
    EXPECT_EQ(1, script.sends());
    script.setRoom(0);
    R3Printf("kept\n");
    script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, output());
    EXPECT_EQ("kept\r\n", script.take());
}

TEST_F(R3SessionSender, TracesOtherSenders) {
    SListener other;
    CSockStream socket;
    take(other, socket);
    CTestSender sender;
    sender->Attach(owner.handler(), &socket);
    R3Trace::sm_tools = true;
    sender->Put("", 0);
    const std::string text = script.take();
    EXPECT_TRUE(text.starts_with("Veltro::Ravelo::CStreamSender::Put, object:")) << text;
    EXPECT_TRUE(text.ends_with(", put len:0, strem:" + text.substr(text.find("strem:") + 6))) << text;
    EXPECT_EQ(1, script.sends());
}

TEST_F(R3SessionSender, ALogThatPrintsDoesNotWaitForItself) {
    int lines = 0;
    Plinth::setLogSink([&lines](int, const char*, const char*, int, const char* message) {
        ++lines;
        R3Printf("%s", message);
    });
    script.setFailing(true);
    EXPECT_EQ(-1, session->output("lost"));  // which the sender logs
    Plinth::setLogSink({});
    EXPECT_GE(lines, 1);
}

/// An operator's connection in the reactor.
class COperator : public CTestHandler {
public:
    COperator() {
        on_output = [this](int fd) { return session->handle_output(fd); };
        on_close = [this] { session->unbind(); };
    }
    const std::shared_ptr<CR3Session> session = std::make_shared<CR3Session>();
};

TEST(R3SessionReactor, LinesOfManyThreadsArriveWholeThroughASlowReader) {
    constexpr int LINES = 300;
    const CPublicPool pool{4};
    SSocketPair pair;
    auto* handler = new COperator;
    ASSERT_EQ(0, handler->session->bind(*handler, pair.client));
    const auto daemon = std::make_shared<CR3Daemon>();
    daemon->setSession(handler->session);
    R3Server::setDaemon(daemon);
    // Everything is traced: what comes must end all the same.
    R3Trace::sm_tools = true;
    R3Trace::sm_events = true;
    const std::string text(200, 'x');
    const auto print = [&text] {
        for (int i = 0; i < LINES; ++i) R3Printf("line %d %s\n", i, text.c_str());
    };
    std::string received;
    {
        CRunner one(print);
        CRunner two(print);
        received = receive(pair.server, 2 * LINES * 200);
    }
    R3Trace::sm_tools = false;
    R3Trace::sm_events = false;
    R3Server::setDaemon(nullptr);
    const std::size_t rest = received.rfind('\n') + 1;
    std::size_t lines = 0;
    for (std::size_t begin = 0; begin < rest; ++lines) {
        const std::size_t end = received.find('\n', begin);
        const std::string line = received.substr(begin, end - begin);
        EXPECT_TRUE(line.starts_with("line ") && line.ends_with(" " + text + "\r")) << line;
        begin = end + 1;
    }
    EXPECT_GT(lines, 500U);
    handler->RemoveSock(pair.client);
    closeAndWait(handler);
}

TEST(R3SessionReactor, AnOwnerMayEndWhileOthersPrint) {
    const CPublicPool pool{4};
    std::atomic<bool> over{false};
    const auto print = [&over] {
        while (!over) R3Printf("%s\n", std::string(3000, 'x').c_str());
    };
    const CLogCapture quiet;
    CRunner one(print);
    CRunner two(print);
    for (int i = 0; i < 40; ++i) {
        SSocketPair pair;
        auto* handler = new COperator;
        const auto session = handler->session;
        ASSERT_EQ(0, session->bind(*handler, pair.client));
        const auto daemon = std::make_shared<CR3Daemon>();
        daemon->setSession(session);
        R3Server::setDaemon(daemon);
        EXPECT_TRUE(waitReadable(pair.server));
        handler->Close();
        EXPECT_TRUE(waitUntil([&session] { return session->output("") == 0 && livingSenders() == 0; })) << i;
    }
    over = true;
    one.join();
    two.join();
    R3Server::setDaemon(nullptr);
}

}  // namespace
}  // namespace Veltro::Ravelo
