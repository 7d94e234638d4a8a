// Our stream sender: Put() until a block is refused, then again when the room is told.
#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include "common/Net.h"
#include "sender/SenderSystem.h"

namespace Bench {

namespace {

using namespace Veltro::Ravelo;

class CConnection : public CNetHandler {
public:
    CConnection(SLoad& load, Veltro::Plinth::CSemaphore& over)
        : m_load(load), m_over(over), m_sender(CStreamSender::Create()) {
        m_stream.Attach(load.fd);
        m_sender->Attach(this, &m_stream);
        m_sender->WaitException(GetID());
        m_sender->WaitBufferSize(GetID(), kFreeBytes);
    }

private:
    int handle_output(int fd) override { return m_sender->handle_output(fd); }
    int handle_message(long, unsigned int type, long) override {
        if (type == NOTIFY_STREAM_EXCEPTION) die("send");
        if (type == NOTIFY_SEND_FINISH) {
            Close();
            return 0;
        }
        while (!m_load.is_over() && m_sender->Put(m_load.block, static_cast<unsigned>(m_load.size)) == 0) {
            m_load.count();
        }
        if (m_load.is_over()) {
            m_sender->WaitSendFinish(GetID());
        } else {
            m_sender->WaitBufferSize(GetID(), kFreeBytes);
        }
        return 0;
    }
    int handle_close(CNetHandler*) override {
        m_sender->Detach();
        m_sender->Close();
        m_stream.Detach();
        Veltro::Plinth::CSemaphore& over = m_over;
        delete this;
        over.post();
        return 0;
    }

    SLoad& m_load;
    Veltro::Plinth::CSemaphore& m_over;
    CSockStream m_stream;
    CStreamSender* const m_sender;
};

}  // namespace

void run_sender(SLoad& load) {
    if (CNetThread::CreateThreadPool(1, false) != 0) die("CreateThreadPool");
    Veltro::Plinth::CSemaphore over;
    new CConnection(load, over);
    over.pend();
    CNetThread::DestroyThreadPool();
}

const char* sender_name() {
    return "ravelo";
}

}  // namespace Bench
