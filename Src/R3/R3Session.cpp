#include "R3/R3Session.h"

#include <Ravelo/StreamSender.h>

#include <utility>

#include "Core/HandlerHold.h"
#include "R3/R3Quiet.h"

namespace Veltro::Ravelo {

namespace {

/// Bytes on their way to a sender; a full chunk is given away before the next byte comes in.
template <typename Give>
class CChunk {
public:
    explicit CChunk(Give& give) : m_give(give) {}

    bool add(char byte) {
        m_bytes[m_used++] = byte;
        return m_used < CR3Session::CHUNK_SIZE || flush();
    }
    /// False when the chunk was not taken.
    bool flush() {
        if (m_used == 0) return true;
        m_result = m_give(m_bytes, m_used);
        m_used = 0;
        return m_result >= 0;
    }
    int result() const { return m_result; }

private:
    Give& m_give;
    std::size_t m_used = 0;
    int m_result = 0;
    char m_bytes[CR3Session::CHUNK_SIZE];
};

}  // namespace

CR3Session::~CR3Session() {
    unbind();
}

int CR3Session::bind(CNetHandler& owner, CSock& stream) {
    Plinth::CLockGuard guard(m_mutex);
    if (m_sender != nullptr) return -1;
    CStreamSender* const sender = CStreamSender::Create();
    if (sender == nullptr) return -1;
    sender->Attach(&owner, &stream);
    sender->WaitException(owner.GetID());
    m_sender = sender;
    m_owner = &owner;
    m_failed = false;
    return 0;
}

CSock* CR3Session::unbind() {
    const CR3Quiet quiet;
    CStreamSender* sender = nullptr;
    {
        Plinth::CLockGuard guard(m_mutex);
        sender = std::exchange(m_sender, nullptr);
        m_owner = nullptr;
    }
    if (sender == nullptr) return nullptr;
    // Nobody else knows it any more; the last reference to the owner may go in here, whose end may call this.
    CSock* const stream = sender->Detach();
    sender->Close();
    return stream;
}

int CR3Session::handle_output(int fd) {
    const CR3Quiet quiet;
    Plinth::CLockGuard guard(m_mutex);
    return m_sender != nullptr ? m_sender->handle_output(fd) : -1;
}

/// Puts a chunk into the sender.
int CR3Session::send(const char* bytes, unsigned length) {
    if (m_failed) return -1;
    const int result = m_sender->Put(bytes, length);
    // Without room something would be queued. To try again would only report the failure again, and where
    // messages are traced each report makes two lines.
    if (result < 0) m_failed = m_sender->GetCounters().bytes_queued == 0;
    return result;
}

void CR3Session::setSender(Put put) {
    Plinth::CLockGuard guard(m_mutex);
    m_put.swap(put);
}

int CR3Session::put(const char* bytes, std::size_t length) {
    // The last reference to the owner may go while the sender is called; its end may call the session.
    CHandlerHold hold;
    Plinth::CLockGuard guard(m_mutex);
    if (m_sender != nullptr) return hold.take(m_owner) ? send(bytes, static_cast<unsigned>(length)) : -1;
    return m_put ? m_put(bytes, static_cast<unsigned>(length)) : 0;
}

int CR3Session::output(const char* text) {
    if (text == nullptr) return 0;
    const CR3Quiet quiet;
    auto give = [this](const char* bytes, std::size_t length) { return put(bytes, length); };
    CChunk chunk(give);
    for (; *text != '\0'; ++text) {
        const bool ends_line = *text == '\r' || *text == '\n';
        if (!(ends_line ? chunk.add('\r') && chunk.add('\n') : chunk.add(*text))) return -1;
    }
    return chunk.flush() ? chunk.result() : -1;
}

}  // namespace Veltro::Ravelo
