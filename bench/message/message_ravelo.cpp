// Messages between handlers of this library.
#include <Plinth/Log.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>

#include <cstdlib>
#include <semaphore>
#include <vector>

#include "common/Placement.h"
#include "message/MessageSystem.h"

namespace {

using namespace Bench;
using namespace Veltro::Ravelo;

constexpr unsigned kMessageType = 100;

/// Hands its messages to a receiver. Deletes itself when closed.
class CReceiverHandler : public CNetHandler {
public:
    CReceiverHandler(int pool, CReceiver* receiver, std::counting_semaphore<>& closed)
        : CNetHandler(pool), m_receiver(receiver), m_closed(closed) {}

    void Send(long id, long info) { Notify(id, kMessageType, info); }

    int handle_message(long, unsigned, long info) override {
        m_receiver->OnMessage(info);
        return 0;
    }

    int handle_close(CNetHandler*) override {
        std::counting_semaphore<>& closed = m_closed;
        delete this;
        closed.release();
        return 0;
    }

private:
    CReceiver* m_receiver;
    std::counting_semaphore<>& m_closed;
};

class CRaveloSystem : public CMessageSystem {
public:
    /// The number of processors is read when the library starts: started on one, it gives a pool of one
    /// worker where one is asked for.
    CRaveloSystem(int pools, unsigned threads_per_pool) {
        Veltro::Plinth::setLogLevel(Veltro::Plinth::LOG_LEVEL_FATAL);
        if (pools == 2) pin_to(0);
        if (CNetThread::CreateThreadPool(threads_per_pool, false) != 0) std::abort();
        if (pools == 2) {
            pin_to(1);
            m_second_pool = CNetThread::CreatePrivatePool(threads_per_pool, false);
        }
        m_poster = new CReceiverHandler(0, nullptr, m_closed);
    }

    ~CRaveloSystem() override {
        m_poster->Close();
        for (CReceiverHandler* handler : m_handlers) handler->Close();
        for (std::size_t i = 0; i <= m_handlers.size(); ++i) m_closed.acquire();
        if (m_second_pool > 0) CNetThread::DestroyPrivatePool(m_second_pool);
        CNetThread::DestroyThreadPool();
    }

    int Add(CReceiver& receiver, int pool) override {
        m_handlers.push_back(new CReceiverHandler(pool == 0 ? 0 : m_second_pool, &receiver, m_closed));
        m_ids.push_back(m_handlers.back()->GetID());
        return static_cast<int>(m_ids.size()) - 1;
    }

    void Post(int receiver, long info) override {
        m_poster->Send(m_ids[static_cast<std::size_t>(receiver)], info);
    }

private:
    std::counting_semaphore<> m_closed{0};
    int m_second_pool = 0;
    CReceiverHandler* m_poster = nullptr;
    std::vector<CReceiverHandler*> m_handlers;
    std::vector<long> m_ids;
};

}  // namespace

namespace Bench {

std::unique_ptr<CMessageSystem> make_message_system(int pools, unsigned threads_per_pool) {
    return std::make_unique<CRaveloSystem>(pools, threads_per_pool);
}

const char* message_system_name() {
    return "ravelo";
}

}  // namespace Bench
