#include "R3/R3Session.h"

#include <utility>

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

void CR3Session::setSender(Put put) {
    Plinth::CLockGuard guard(m_mutex);
    m_put.swap(put);
}

int CR3Session::put(const char* bytes, std::size_t length) {
    Plinth::CLockGuard guard(m_mutex);
    return m_put ? m_put(bytes, static_cast<unsigned>(length)) : 0;
}

int CR3Session::output(const char* text) {
    if (text == nullptr) return 0;
    auto give = [this](const char* bytes, std::size_t length) { return put(bytes, length); };
    CChunk chunk(give);
    for (; *text != '\0'; ++text) {
        const bool ends_line = *text == '\r' || *text == '\n';
        if (!(ends_line ? chunk.add('\r') && chunk.add('\n') : chunk.add(*text))) return -1;
    }
    return chunk.flush() ? chunk.result() : -1;
}

}  // namespace Veltro::Ravelo
