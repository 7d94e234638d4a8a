// A media buffer whose frames are single packets.
#include <Ravelo/Ravelo.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/Net.h"
#include "common/Placement.h"
#include "fanout/FanoutSystem.h"

namespace Bench {

namespace {

using namespace Veltro::Ravelo;

class CPacket : public CMediaPacket {
public:
    CPacket(const char* bytes, std::size_t length) : m_bytes(bytes, bytes + length) {}
    void Release() override { delete this; }
    char* GetBuffer() override { return m_bytes.data(); }

private:
    std::vector<char> m_bytes;
};

class CRaveloFanout : public CFanoutSystem {
public:
    CRaveloFanout() {
        // The pool's threads have nothing to do here, and stay away from the one that sends.
        pin_to(1);
        if (CNetThread::CreateThreadPool(1, false) != 0) die("CreateThreadPool");
        pin_to(0);
    }
    void Add(int fd) override {
        auto* stream = new CSockStream;  // goes with the process, as all of this
        stream->Attach(fd);
        CMediaStreamSender* sender = CMediaStreamSender::Create();
        sender->Attach(stream);
        m_buffer.AddSender(sender);
    }
    void Send(const char* packet, std::size_t length) override {
        m_buffer.Put(new CPacket(packet, length), static_cast<int>(length), 1, 1);
    }

private:
    CMediaBuffer m_buffer;
};

}  // namespace

std::unique_ptr<CFanoutSystem> make_fanout_system() {
    return std::make_unique<CRaveloFanout>();
}

const char* fanout_system_name() {
    return "ravelo";
}

}  // namespace Bench
