#include "Tool/RecvThreads.h"

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>

#include <new>
#include <utility>

#include "Core/PoolTable.h"
#include "Tool/MediaStreamReceiverRecord.h"
#include "Tool/PacingGroup.h"

namespace Veltro::Ravelo {

namespace {

using GroupSet = std::vector<std::unique_ptr<CPacingGroup>>;

struct SState {
    Plinth::CMutex mutex;  // receivers join one at a time; taken before a group's
    GroupSet normal PLINTH_GUARDED_BY(mutex);
    GroupSet fast PLINTH_GUARDED_BY(mutex);
    std::int64_t pace_us PLINTH_GUARDED_BY(mutex) = 20'000;

    GroupSet& setOf(std::uint32_t mode) PLINTH_REQUIRES(mutex) {
        return mode == CMediaStreamReceiver::RECEIVE_MODE_WRITE ? fast : normal;
    }
};

/// Never destroyed: receivers may be started while the process's statics go.
SState& s_state = *new SState;

GroupSet makeSet(CPacingGroup::EMode mode, unsigned count, const SThreadSettings& settings) {
    GroupSet groups;
    for (unsigned i = 0; i < count; ++i) {
        groups.push_back(std::make_unique<CPacingGroup>(i, mode, count, settings));
    }
    return groups;
}

/// Ends with a message to itself, which comes behind all that were posted before.
class CLastMessage : public CNetHandler {
public:
    explicit CLastMessage(Plinth::CSemaphore& gone) : m_gone(gone) {}

    void send() { Notify(GetID(), 0, 0); }
    int handle_message(long, unsigned int, long) override {
        Close();
        return 0;
    }
    int handle_close(CNetHandler*) override {
        Plinth::CSemaphore& gone = m_gone;
        delete this;
        gone.post();
        return 0;
    }

private:
    Plinth::CSemaphore& m_gone;
};

/// Waits until the public pool has come to what was posted so far: its end would drop it.
void waitForDelivery() {
    // A pool without workers, as a single processor allows, never comes to anything.
    const CThreadPool* pool = CPoolTable::peek(0);
    if (pool == nullptr || pool->threadCount() == 0) return;
    Plinth::CSemaphore gone;
    try {
        auto* message = new CLastMessage(gone);
        message->send();
    } catch (const std::bad_alloc&) {
        return;
    }
    gone.pend();
}

}  // namespace

int RecvThreads::start(unsigned processors, int priority, int policy, int param) {
    const SThreadSettings settings{priority, policy, param};
    try {
        GroupSet normal = makeSet(CPacingGroup::Normal, processors, settings);
        GroupSet fast = makeSet(CPacingGroup::Fast, processors, settings);
        Plinth::CLockGuard guard(s_state.mutex);
        s_state.normal = std::move(normal);
        s_state.fast = std::move(fast);
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

void RecvThreads::stop() {
    GroupSet sets[2];
    {
        // Not joined under the mutex: a callback may be about to let another receiver join.
        Plinth::CLockGuard guard(s_state.mutex);
        sets[0].swap(s_state.normal);
        sets[1].swap(s_state.fast);
    }
    for (const GroupSet& groups : sets) {
        for (const auto& group : groups) group->cancel();
    }
    bool any_used = false;
    for (const GroupSet& groups : sets) {
        for (const auto& group : groups) any_used = group->stop() || any_used;
    }
    if (any_used) waitForDelivery();
}

void RecvThreads::setPace(int value) {
    Plinth::CLockGuard guard(s_state.mutex);
    s_state.pace_us = std::int64_t{value} * 1000;
}

int RecvThreads::join(CMediaStreamReceiver& receiver) {
    Plinth::CLockGuard guard(s_state.mutex);
    CPacingGroup* chosen = nullptr;
    unsigned fewest = 0;
    for (const auto& group : s_state.setOf(SMediaStreamReceiverRecord::of(receiver).m_mode)) {
        const unsigned number = group->number();
        if (chosen == nullptr || number < fewest) {
            chosen = group.get();
            fewest = number;
        }
    }
    return chosen != nullptr ? chosen->join(receiver, s_state.pace_us) : -1;
}

bool RecvThreads::isCurrent() {
    return CPacingGroup::isCurrent();
}

std::vector<unsigned> RecvThreads::numbers(std::uint32_t mode) {
    Plinth::CLockGuard guard(s_state.mutex);
    std::vector<unsigned> result;
    for (const auto& group : s_state.setOf(mode)) result.push_back(group->number());
    return result;
}

}  // namespace Veltro::Ravelo
