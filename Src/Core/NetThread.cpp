#include <Ravelo/NetThread.h>
#include <Ravelo/R3Server.h>
#include <Ravelo/TsMemory.h>

#include <new>

#include "Core/EventPool.h"
#include "Core/Message.h"
#include "Core/NetThreadState.h"
#include "Core/NetTimer.h"
#include "Core/PoolTable.h"
#include "Core/SockTimer.h"
#include "Debug/SockDump.h"
#include "Debug/StallWatch.h"
#include "Log.h"
#include "Socket/SocketApi.h"
#include "Socket/SslSetup.h"
#include "Tool/FileThreads.h"
#include "Tool/RecvThreads.h"

namespace Veltro::Ravelo {

namespace {

/// Where the remote command server would listen, if there were one.
constexpr unsigned short R3_PORT = 0;

/// What a worker that may not wait for the creation mutex gets.
int refuseStopping() {
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "refused: the calling thread's own pool is being destroyed\n");
    return -1;
}

/// A pool with its threads running; null when the system has no memory or no thread to give.
std::unique_ptr<CThreadPool> startPool(SNetThreadState& state, int number, unsigned thread_num)
    PLINTH_REQUIRES(state.mutex) {
    try {
        auto pool = std::make_unique<CThreadPool>(static_cast<unsigned>(number), thread_num,
                                                  state.worker_settings, state.capacity, state.processors);
        if (pool->start()) return pool;
        pool->stop();
    } catch (const std::bad_alloc&) {
        // Told by the result.
    }
    return nullptr;
}

/// Starts a pool and enters it in the table.
bool createPool(SNetThreadState& state, int number, unsigned thread_num) PLINTH_REQUIRES(state.mutex) {
    auto pool = startPool(state, number, thread_num);
    if (!pool) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "no memory or no thread for thread pool %d\n", number);
        return false;
    }
    CPoolTable::enter(number, pool.release());
    state.worker_settings = SThreadSettings{};
    return true;
}

/// Ends a pool and takes all that was meant for its handlers with it.
void destroyPool(int number) {
    // Out of the table first and joined afterwards, so that a callback that posts to its own pool cannot
    // block us.
    const std::unique_ptr<CThreadPool> pool(CPoolTable::remove(number));
    pool->stop();
    CNetTimer::dropPool(number);
    CMessage::dropIo(number);
}

/// The system's socket layer, and the time-outs on it.
int startSocketLayer() {
    if (SocketApi::startup() != 0) return -1;
    if (CSockTimer::start() == 0) return 0;
    SocketApi::cleanup();
    return -1;
}

/// Undoes what a failed first initialisation has started.
int undoServices() {
    RecvThreads::stop();
    CNetTimer::stop();
    CSockTimer::stop();
    SocketApi::cleanup();
    return -1;
}

int initialise(SNetThreadState& state, unsigned thread_num) PLINTH_REQUIRES(state.mutex) {
    CTsMemory::InitStaticVal();
    state.processors = Plinth::getProcessorCount();
    if (startSocketLayer() != 0) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "CNetThread::check_on_init, CNetSock init environment failed!\n");
        return -1;
    }
    if (CNetTimer::start() != 0) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "CNetThread::check_on_init, CNetTimer init failed!\n");
        return undoServices();
    }
    const SThreadSettings settings = state.recv_settings;
    if (RecvThreads::start(state.processors, settings.priority, settings.policy, settings.param) != 0 ||
        !createPool(state, 0, thread_num)) {
        return undoServices();
    }
    state.pool_count = 1;
    ++state.sm_pub_pool_ref;
    SslSetup::start();
    return 0;
}

/// Stores settings for threads to come, if their policy is known. @param function the caller's name for the
/// log.
int storeSettings(const char* function, SThreadSettings SNetThreadState::*place,
                  const SThreadSettings& settings) {
    if (settings.policy != 0 && settings.policy != 1) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "%s : Thread policy set error!\n", function);
        return -1;
    }
    SNetThreadState& state = SNetThreadState::get();
    const CCreationGuard guard(state);
    if (!guard) return refuseStopping();
    state.*place = settings;
    return 0;
}

/// Whether the end of a pool waits for the calling thread; that of the public pool also for pacing threads.
bool isCurrent(int number) {
    const CThreadPool* own = CPoolTable::current();
    return own != nullptr ? own->number() == number : number == 0 && RecvThreads::isCurrent();
}

/// Whether the calling thread ends with the last use of the library, and so can't be the one to end it.
bool endsWithLastUse() {
    return isCurrent(0) || FileThreads::isOwnThread();
}

/// Whether the library goes down with the public pool: nobody uses it and no private pool is left.
bool isLastUse(int pool_count, int references) {
    return pool_count == 1 && references <= 1;
}

int refuseSelf(int number) {
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR,
               "refused: thread pool %d can't be destroyed by one of its own threads\n", number);
    return -1;
}

int refuseMissing(int number) {
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "The private pool %d not exist! Can't close it!\n", number);
    return -1;
}

/// Ends everything, in the reverse order of the start.
void shutDown(SNetThreadState& state) PLINTH_REQUIRES(state.mutex) {
    state.ending.store(true);
    RecvThreads::stop();
    CNetTimer::stop();
    CSockTimer::stop();
    destroyPool(0);
    state.sm_pub_pool_ref = 0;
    if (state.file_threads) FileThreads::stop();
    state.file_threads = false;
    CTsMemory::DestroyMemPool();
    CEventPool::destroy();
    SocketApi::cleanup();
    state.pool_count = -1;
    state.ending.store(false);
}

/// Brings the library up at the first use. Returns the users of the public pool, or -1.
int check_on_init(SNetThreadState& state, unsigned thread_num, bool start_file_threads)
    PLINTH_REQUIRES(state.mutex) {
    const bool first = state.pool_count == -1;
    if (first && initialise(state, thread_num) != 0) return -1;
    if (start_file_threads && !state.file_threads) {
        if (FileThreads::start(state.processors) != 0) {
            if (first) shutDown(state);
            return -1;
        }
        state.file_threads = true;
    }
    return state.sm_pub_pool_ref;
}

int destroyPublic(SNetThreadState& state) PLINTH_REQUIRES(state.mutex) {
    if (state.pool_count == -1) return refuseMissing(0);
    const int left = state.sm_pub_pool_ref - 1;
    if (isLastUse(state.pool_count, left) && endsWithLastUse()) return refuseSelf(0);
    state.sm_pub_pool_ref = left > 0 ? left : 0;
    if (isLastUse(state.pool_count, left)) shutDown(state);
    return 0;
}

int destroyPrivate(SNetThreadState& state, int number) PLINTH_REQUIRES(state.mutex) {
    if (CPoolTable::peek(number) == nullptr) return refuseMissing(number);
    const bool last = isLastUse(state.pool_count - 1, state.sm_pub_pool_ref);
    if (isCurrent(number)) return refuseSelf(number);
    if (last && endsWithLastUse()) return refuseSelf(0);
    --state.pool_count;
    destroyPool(number);
    if (last) shutDown(state);
    return 0;
}

}  // namespace

int CNetThread::CreateThreadPool(unsigned int thread_num, bool start_file_threads) {
    SNetThreadState& state = SNetThreadState::get();
    const CCreationGuard guard(state);
    if (!guard) return refuseStopping();
    if (check_on_init(state, thread_num, start_file_threads) < 0) return -1;
    ++state.sm_pub_pool_ref;
    RAVELO_LOG(Plinth::LOG_LEVEL_TRACE, "Create Ravelo thread pool success!\n");
    return 0;
}

int CNetThread::CreatePrivatePool(unsigned int thread_num, bool start_file_threads) {
    SNetThreadState& state = SNetThreadState::get();
    const CCreationGuard guard(state);
    if (!guard) return refuseStopping();
    if (check_on_init(state, thread_num, start_file_threads) < 0) return -1;
    int number = 1;
    while (number < POOL_COUNT && CPoolTable::peek(number) != nullptr) ++number;
    if (number == POOL_COUNT) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "No more private pool can be created!\n");
        return -1;
    }
    if (!createPool(state, number, thread_num)) return -1;
    ++state.pool_count;
    RAVELO_LOG(Plinth::LOG_LEVEL_TRACE, "Create Ravelo privatepool success!\n");
    return number;
}

int CNetThread::DestroyThreadPool() {
    SNetThreadState& state = SNetThreadState::get();
    const CCreationGuard guard(state);
    const int result = guard ? destroyPublic(state) : refuseStopping();
    RAVELO_LOG(Plinth::LOG_LEVEL_TRACE, "Destroy Ravelo thread pool! ret:%d\n", result);
    return result;
}

int CNetThread::DestroyPrivatePool(int pool) {
    if (pool < 1 || pool >= POOL_COUNT) return -1;
    SNetThreadState& state = SNetThreadState::get();
    const CCreationGuard guard(state);
    const int result = guard ? destroyPrivate(state, pool) : refuseStopping();
    RAVELO_LOG(Plinth::LOG_LEVEL_TRACE, "Destroy Ravelo privatepool! ret:%d\n", result);
    return result;
}

int CNetThread::SetThreadPriority(int priority, int policy, int param) {
    if (priority != 1 && priority != 64 && priority != 127) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "%s : Thread priority set error!\n", __func__);
        return -1;
    }
    return storeSettings(__func__, &SNetThreadState::worker_settings,
                         SThreadSettings{priority, policy, param});
}

int CNetThread::SetRecvThreadPriority(int priority, int policy, int param) {
    return storeSettings(__func__, &SNetThreadState::recv_settings, SThreadSettings{priority, policy, param});
}

void CNetThread::SetRcvPriority(int level) {
    const int paces[] = {10, 20, 25, 30};
    SNetThreadState& state = SNetThreadState::get();
    const CCreationGuard guard(state);
    if (guard) RecvThreads::setPace(level >= 0 && level <= 3 ? paces[level] : 20);
}

int CNetThread::SetSocketCapacity(unsigned int per_kind) {
    if (per_kind == 0 || per_kind > CMultiplexer::maxCapacity()) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "%s : capacity %u is not within 1 and %u\n", __func__, per_kind,
                   CMultiplexer::maxCapacity());
        return -1;
    }
    SNetThreadState& state = SNetThreadState::get();
    const CCreationGuard guard(state);
    if (!guard) return refuseStopping();
    state.capacity = per_kind;
    return 0;
}

void CNetThread::SetStallReport(unsigned int limit_ms) {
    CStallWatch::setLimit(limit_ms);
}

int CNetThread::EnableR3() {
    if (R3ServerStart(R3_PORT, "", false) == 0) return 0;
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_ERROR, "R3ServerStart failed!!\n\n");
    return -1;
}

int CNetThread::DisableR3() {
    return R3ServerExit();
}

int CNetThread::TraversalSock() {
    return SockDump::traverse();
}
void CNetThread::DumpSockEvent(int fd) {
    SockDump::dumpSocks(&fd, fd == 0 ? 0 : 1);
}
void CNetThread::DumpSockArrayEvent(int* fds, int count) {
    if (fds != nullptr && count > 0) SockDump::dumpSocks(fds, count);
}
void CNetThread::DumpNethandlerEvent(std::int64_t id) {
    SockDump::dumpHandler(id);
}

}  // namespace Veltro::Ravelo

int CreateThreadPool(unsigned int thread_num, bool start_file_threads) {
    return Veltro::Ravelo::CNetThread::CreateThreadPool(thread_num, start_file_threads);
}

int DestroyThreadPool() {
    return Veltro::Ravelo::CNetThread::DestroyThreadPool();
}
