// Registering, changing and withdrawing, and what callbacks follow.
#include "Core/NetSock.h"

#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

TEST(NetSock, RegisteringTwiceAddsInterestAndUnregisterTakesItAway) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    fill(pair.server);
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 0));
    EXPECT_EQ(unsigned{EventMask::Read}, sockState(fd).mask);
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Write, 0));
    EXPECT_EQ(unsigned{EventMask::Read} | EventMask::Write, sockState(fd).mask);
    EXPECT_EQ(0, handler->UnregisterSock(pair.server, EventMask::Write));
    EXPECT_EQ(unsigned{EventMask::Read}, sockState(fd).mask);
    EXPECT_EQ(0, handler->RemoveSock(pair.server));
    EXPECT_FALSE(sockState(fd).registered);
}

TEST(NetSock, UnregisterOfBitsThatAreNotSetChangesNothing) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 5'000'000));
    const SSockState before = sockState(pair.server.GetHandle());
    EXPECT_EQ(0, handler->UnregisterSock(pair.server, EventMask::Write | EventMask::Except));
    const SSockState after = sockState(pair.server.GetHandle());
    EXPECT_EQ(before.mask, after.mask);
    EXPECT_EQ(before.time_out, after.time_out);
    EXPECT_TRUE(after.in_list);
    handler->RemoveSock(pair.server);
}

TEST(NetSock, TheLastReadOrWriteInterestTakesTheTimeOutAlong) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read | EventMask::Except, 5'000'000));
    EXPECT_EQ(0, handler->UnregisterSock(pair.server, EventMask::Read));
    const SSockState state = sockState(pair.server.GetHandle());
    EXPECT_TRUE(state.registered);
    EXPECT_EQ(unsigned{EventMask::Except}, state.mask);
    EXPECT_FALSE(state.in_list);
    EXPECT_EQ(0, state.set_time);
    handler->RemoveSock(pair.server);
}

TEST(NetSock, OperationsOnASocketThatIsNotRegisteredReturnZero) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    CSockStream closed;
    CLogCapture log;
    for (CSock* sock : {static_cast<CSock*>(&pair.server), static_cast<CSock*>(&closed)}) {
        EXPECT_EQ(0, handler->UnregisterSock(*sock, EventMask::Read));
        EXPECT_EQ(0, handler->RemoveSock(*sock));
        EXPECT_EQ(0, handler->CheckSock(*sock));
    }
    EXPECT_EQ(0, sockCount(handler.get()));
    EXPECT_EQ(0, errorLines(log));
}

TEST(NetSock, RegisteringASocketThatIsNotOpenIsRefusedWithTwoLines) {
    const CPublicPool pool;
    CScopedHandler handler;
    CSockStream closed;
    CLogCapture log;
    EXPECT_EQ(-1, handler->RegisterSock(closed, EventMask::Read, 7000));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "RegisterSock sock fd error, fd: -1\n"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "CNetSock Register an invalid sock, obj:"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "CTestHandler, socket:-1\n, mask:1, time_out:7000\n"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING,
                           "obj_id:" + std::to_string(SNetHandlerRecord::of(*handler.get()).id())));
    EXPECT_EQ(0, sockCount(handler.get()));
}

TEST(NetSock, AStandardStreamsDescriptorIsLoggedAndRegistered) {
    const CPublicPool pool;
    CScopedHandler handler;
    for (int fd = 0; fd <= 3; ++fd) {
        CLogCapture log;
        CSockStream sock;
        sock.Attach(fd);
        EXPECT_EQ(0, handler->RegisterSock(sock, EventMask::None, 0));
        const std::string line =
            "RegisterSock sock fd specially with standard stream value: " + std::to_string(fd) + "\n";
        EXPECT_EQ(fd <= 2 ? 1 : 0, log.count(Plinth::LOG_LEVEL_WARNING, line));
        EXPECT_TRUE(sockState(fd).registered);
        EXPECT_EQ(0, handler->RemoveSock(sock));
        sock.Detach();
    }
}

TEST(NetSock, RegisteringAfterCloseIsRefused) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    handler->AddRef();
    std::atomic<int> closed{0};
    CTestHandler* object = handler.get();
    object->Close();
    EXPECT_EQ(-1, object->RegisterSock(pair.server, EventMask::Read, 0));
    EXPECT_FALSE(sockState(pair.server.GetHandle()).registered);
    object->closed = &closed;
    object->DecRef();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
    handler.release();
}

TEST(NetSock, CheckSockKeepsAReaderWithoutItsWriteInterest) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    fill(pair.server);
    handler->RegisterSock(pair.server, EventMask::Read | EventMask::Write, 0);
    EXPECT_EQ(0, handler->CheckSock(pair.server));
    EXPECT_EQ(unsigned{EventMask::Read}, sockState(pair.server.GetHandle()).mask);
    EXPECT_EQ(1, sockCount(handler.get()));
    handler->RemoveSock(pair.server);
}

TEST(NetSock, CheckSockRemovesASocketThatNobodyReads) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    fill(pair.server);
    handler->RegisterSock(pair.server, EventMask::Write, 0);
    EXPECT_EQ(0, handler->CheckSock(pair.server));
    EXPECT_FALSE(sockState(pair.server.GetHandle()).registered);
    EXPECT_EQ(0, sockCount(handler.get()));
}

TEST(NetSock, ReadableAndWritableAreDispatchedInThisOrder) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::vector<std::string> calls;
    CScopedHandler handler;
    SSocketPair pair;
    handler->on_input = [&](int fd) {
        calls.push_back("input");
        EXPECT_EQ(pair.server.GetHandle(), fd);
        EXPECT_EQ(1, drain(fd));
        return 0;
    };
    handler->on_output = [&](int) {
        calls.push_back("output");
        EXPECT_EQ(0, handler->UnregisterSock(pair.server, EventMask::Write));
        done.post();
        return 0;
    };
    sendText(pair.client, pair.server, "x");
    handler->RegisterSock(pair.server, EventMask::Read | EventMask::Write, 0);
    ASSERT_TRUE(pend(done));
    handler->RemoveSock(pair.server);
    handler.close();
    EXPECT_EQ((std::vector<std::string>{"input", "output"}), calls);
}

TEST(NetSock, UrgentDataIsAnExceptionAndNothingElse) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<int> others{0};
    CScopedHandler handler;
    SSocketPair pair;
    handler->on_exception = [&](int) {
        handler->RemoveSock(pair.server);
        done.post();
        return 0;
    };
    handler->on_input = handler->on_output = [&](int) { return ++others; };
    sendText(pair.client, pair.server, "x");
    sendUrgent(pair.client, pair.server);
    handler->RegisterSock(pair.server, EventMask::Read | EventMask::Write | EventMask::Except, 0);
    EXPECT_TRUE(pend(done));
    handler.close();
    EXPECT_EQ(0, others.load());
}

TEST(NetSock, AFailedConnectIsAnExceptionToThoseWhoAsked) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<int> outputs{0};
    CScopedHandler handler;
    CSockStream client;
    handler->on_exception = [&](int) {
        handler->RemoveSock(client);
        done.post();
        return 0;
    };
    handler->on_output = [&](int) { return ++outputs; };
    client.Connect(CSockAddrIPv4("127.0.0.1", freePort()));
    handler->RegisterSock(client, EventMask::Write | EventMask::Except, 0);
    EXPECT_TRUE(pend(done));
    EXPECT_EQ(-2, client.GetConnectStatus());
    EXPECT_EQ(0, outputs.load());
}

TEST(NetSock, AFailedConnectIsWritableToThoseWhoDidNotAskForExceptions) {
    if (isWindows()) return printSkip("this system shows a failed connect in the exception set only");
    const CPublicPool pool;
    Plinth::CSemaphore done;
    CScopedHandler handler;
    CSockStream client;
    handler->on_output = [&](int) {
        handler->RemoveSock(client);
        done.post();
        return 0;
    };
    client.Connect(CSockAddrIPv4("127.0.0.1", freePort()));
    handler->RegisterSock(client, EventMask::Write, 0);
    EXPECT_TRUE(pend(done));
    EXPECT_EQ(-2, client.GetConnectStatus());
}

TEST(NetSock, ASucceededConnectIsWritable) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    CScopedHandler handler;
    SListener listener;
    CSockStream client;
    handler->on_output = [&](int) {
        handler->RemoveSock(client);
        done.post();
        return 0;
    };
    client.Connect(listener.address);
    handler->RegisterSock(client, EventMask::Write | EventMask::Except, 0);
    EXPECT_TRUE(pend(done));
    EXPECT_EQ(0, client.GetConnectStatus());
}

TEST(NetSock, AConnectionToAcceptIsReadable) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    CScopedHandler handler;
    SListener listener;
    CSockStream accepted;
    handler->on_input = [&](int) {
        if (listener.acceptor.Accept(accepted) == 0) done.post();
        return 0;
    };
    handler->RegisterSock(listener.acceptor, EventMask::Read, 0);
    CSockStream client;
    client.Connect(listener.address);
    EXPECT_TRUE(pend(done));
    handler->RemoveSock(listener.acceptor);
}

TEST(NetSock, InterestAddedInsideACallbackTakesEffectAfterIt) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    CScopedHandler handler;
    SSocketPair pair;
    handler->on_input = [&](int fd) {
        EXPECT_EQ(1, drain(fd));
        EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Write, 0));
        return 0;
    };
    handler->on_output = [&](int) {
        handler->UnregisterSock(pair.server, EventMask::Write);
        done.post();
        return 0;
    };
    handler->RegisterSock(pair.server, EventMask::Read, 0);
    for (int i = 0; i < 3; ++i) {
        sendByte(pair.client);
        ASSERT_TRUE(pend(done));
    }
    handler->RemoveSock(pair.server);
}

TEST(NetSock, SocketsBeyondTheCapacityAreIgnoredSilently) {
    CLogCapture log;
    ASSERT_EQ(0, CNetThread::SetSocketCapacity(2));
    {
        const CPublicPool pool;
        Plinth::CSemaphore served;
        CScopedHandler handler;
        SSocketPair pairs[3];
        handler->on_output = [&](int fd) {
            for (SSocketPair& pair : pairs) {
                if (pair.server.GetHandle() == fd) handler->UnregisterSock(pair.server, EventMask::Write);
            }
            served.post();
            return 0;
        };
        for (SSocketPair& pair : pairs) fill(pair.server);
        for (SSocketPair& pair : pairs) EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Write, 0));
        // The third has no place even when it becomes writable.
        for (int i : {2, 1, 0}) reset(pairs[i].client);
        EXPECT_TRUE(pend(served));
        EXPECT_TRUE(pend(served));
        EXPECT_EQ(unsigned{EventMask::Write}, sockState(pairs[2].server.GetHandle()).mask);
        EXPECT_EQ(3, sockCount(handler.get()));
        for (SSocketPair& pair : pairs) handler->RemoveSock(pair.server);
    }
    EXPECT_EQ(0, errorLines(log));
    EXPECT_EQ(0, CNetThread::SetSocketCapacity(CMultiplexer::DEFAULT_CAPACITY));
}

TEST(NetSock, DestroyingThePoolUnderSocketsLogsNothing) {
    CLogCapture log;
    SSocketPair pairs[8];
    {
        const CPublicPool pool;
        const int number = CNetThread::CreatePrivatePool(2, false);
        ASSERT_GT(number, 0);
        CScopedHandler handler;
        CScopedHandler private_handler(number);
        for (int i = 0; i < 8; ++i) {
            CScopedHandler& owner = i % 2 == 0 ? handler : private_handler;
            EXPECT_EQ(0, owner->RegisterSock(pairs[i].server, EventMask::Read, 3'000'000));
        }
        handler.close();
        private_handler.close();
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
    }
    // Only the handlers complain, about the sockets that they left.
    EXPECT_EQ(2, log.count(Plinth::LOG_LEVEL_ERROR, "has not been removed, please remove it before close"));
    EXPECT_EQ(2, errorLines(log));
}

TEST(NetSock, TheSameDescriptorMayBeRegisteredInTwoPools) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GT(number, 0);
    {
        Plinth::CSemaphore public_served;
        Plinth::CSemaphore private_served;
        CScopedHandler reader;
        CScopedHandler writer(number);
        SSocketPair pair;
        reader->on_input = [&](int fd) {
            EXPECT_EQ(1, drain(fd));
            public_served.post();
            return 0;
        };
        writer->on_output = [&](int) {
            writer->RemoveSock(pair.server);
            private_served.post();
            return 0;
        };
        EXPECT_EQ(0, reader->RegisterSock(pair.server, EventMask::Read, 0));
        EXPECT_EQ(0, writer->RegisterSock(pair.server, EventMask::Write, 0));
        EXPECT_TRUE(pend(private_served));
        sendByte(pair.client);
        EXPECT_TRUE(pend(public_served));
        reader->RemoveSock(pair.server);
    }
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
}

TEST(NetSock, TheLastPoolEndsWithoutALineWhenNobodyElseUsesTheSocketLayer) {
    CLogCapture log;
    SocketApi::cleanup();  // the test program's own use
    for (int i = 0; i < 5; ++i) {
        Plinth::CSemaphore done;
        const CPublicPool pool;
        CScopedHandler handler;
        SSocketPair pair;
        handler->on_input = [&](int fd) {
            EXPECT_EQ(1, drain(fd));
            done.post();
            return 0;
        };
        EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 0));
        sendByte(pair.client);
        EXPECT_TRUE(pend(done));
        EXPECT_EQ(0, handler->RemoveSock(pair.server));
    }
    EXPECT_EQ(0, errorLines(log));
    EXPECT_EQ(0, SocketApi::startup());
}
