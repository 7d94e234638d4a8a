// What the system may refuse when pools are set up: memory, threads, descriptors.
#include <Plinth/ThreadManager.h>

#include <cstring>
#include <set>

#include "Core/NetThreadState.h"
#include "Plinth/FailingAllocator.h"
#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/Reactor.h"
#include "Support/SocketLayer.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

int poolCount() {
    SNetThreadState& state = SNetThreadState::get();
    Plinth::CLockGuard guard(state.mutex);
    return state.pool_count;
}

/// Counts two lines as they come, without memory of its own.
class CLineCounter {
public:
    CLineCounter() {
        Plinth::setLogSink([this](int level, const char*, const char*, int, const char* message) {
            if (level != Plinth::LOG_LEVEL_ERROR) return;
            if (std::strstr(message, SOCKET_LAYER) != nullptr) ++socket_layer;
            if (std::strstr(message, TIMERS) != nullptr) ++timers;
        });
    }
    ~CLineCounter() { Plinth::setLogSink({}); }

    std::atomic<int> socket_layer{0};
    std::atomic<int> timers{0};

private:
    static constexpr const char* SOCKET_LAYER =
        ", CNetThread::check_on_init, CNetSock init environment failed!\n";
    static constexpr const char* TIMERS = ", CNetThread::check_on_init, CNetTimer init failed!\n";
};

/// The names of all threads that run under one.
std::set<std::string> threadNames() {
    constexpr unsigned long GREATEST_ID = 1UL << 22;
    std::set<std::string> names;
    for (unsigned long id = 1; id <= GREATEST_ID; ++id) {
        names.insert(Plinth::CThreadManager::getThreadNameByID(id));
    }
    return names;
}

}  // namespace

TEST(NetThreadSetup, ServicesWithoutMemoryFailTheCreationAndLeaveNothing) {
    if (!libraryUsesThisAllocator()) return;
    // What is made once for the process is made by a first use.
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, true));
    ASSERT_EQ(0, CNetThread::DestroyThreadPool());
    const CLineCounter lines;
    int failures = 0;
    for (; failures < 1000; ++failures) {
        int result;
        {
            const CFailingAllocator failing(failures);
            result = CNetThread::CreateThreadPool(1, true);
        }
        if (result == 0) break;
        EXPECT_EQ(-1, result);
        ASSERT_EQ(-1, poolCount()) << failures;
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_GT(failures, 10);
    EXPECT_LT(failures, 1000);
    EXPECT_GE(lines.socket_layer.load(), 1);
    EXPECT_GE(lines.timers.load(), 1);
}

TEST(NetThreadSetup, APoolWithoutAMultiplexerIsLoggedAndServesMessages) {
    const CPublicPool pool;
    if (!setDescriptorLimit(0)) return printSkip("this platform does not limit descriptors");
    CLogCapture log;
    const int number = CNetThread::CreatePrivatePool(1, false);
    setDescriptorLimit(1024);
    ASSERT_EQ(1, number);
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, ", Init :CreatePipe failed!\n"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, ", socket mutiplexer init fail, Please check it!\n"));
    auto* handler = new CTestHandler(number);
    std::atomic<int> messages{0};
    handler->on_message = [&](long, unsigned, long) { return ++messages; };
    handler->Notify(handler->GetID(), 1, 0);
    handler->NotifySerial(handler->GetID(), 1, 0, 0);
    EXPECT_TRUE(waitUntil([&] { return messages.load() == 2; }));
    closeAndWait(handler);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
}

TEST(NetThreadSetup, TheServicesThreadsHaveTheirNamesWhileThereArePools) {
    {
        const CPublicPool pool;
        EXPECT_TRUE(waitUntil([] {
            const std::set<std::string> names = threadNames();
            return names.contains("Timer_Thread") && names.contains("Sock_Timer_Thread") &&
                   names.contains("Ravelo0") && names.contains("Ravelo0 daemon");
        }));
    }
    EXPECT_EQ(std::set<std::string>{""}, threadNames());
}
