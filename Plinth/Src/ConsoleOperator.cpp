#include "ConsoleOperator.h"

#include <Plinth/Time.h>

#include <new>

namespace Veltro::Plinth {

namespace Transport = ConsoleTransport;

namespace {

/// Whether two texts are equal, in a time that does not tell where they differ.
bool isEqual(const char* text, std::size_t length, const std::string& token) {
    unsigned char difference = length == token.size() ? 0 : 1;
    for (std::size_t i = 0; i < token.size(); ++i) {
        const char c = i < length ? text[i] : '\0';
        difference = static_cast<unsigned char>(difference | (c ^ token[i]));
    }
    return difference == 0;
}

}  // namespace

CConsoleOperator::CConsoleOperator(Transport::Handle handle, const std::string& token, SConsoleBudget& budget)
    : m_handle(handle),
      m_token(token),
      m_budget(budget),
      m_since_ms(CTime::getCurrentMilliSecond()),
      m_admitted(token.empty()),
      m_dialogue([this](const char* bytes, std::size_t length) { keep(bytes, length); }) {}

CConsoleOperator::~CConsoleOperator() {
    m_budget.kept_bytes -= m_kept.size();
    Transport::close(m_handle);
}

Transport::SWait CConsoleOperator::wish() const {
    return {m_handle, unsent() == 0 && !m_typed_all, unsent() > 0, false, false};
}

bool CConsoleOperator::serve(const Transport::SWait& ready) {
    if (ready.can_read) {
        // Asked for nothing more, a connection is ready only when it has ended.
        if (m_typed_all) return false;
        if (unsent() == 0 && !read()) m_typed_all = true;
    }
    if (!m_admitted && m_typed_all) return false;
    for (;;) {
        if (!flush()) return false;
        if (unsent() > 0) return true;
        if (m_dialogue.isOver()) return false;
        if (!m_dialogue.runNext()) return !m_typed_all;
        endAnswer();
    }
}

/// One read; false when nothing more can come from him.
bool CConsoleOperator::read() {
    char bytes[CConsoleDialogue::MAX_LINE];
    const int length = Transport::receive(m_handle, bytes, sizeof bytes);
    if (length <= 0) return length == 0;
    if (!m_admitted) return admit(bytes, static_cast<std::size_t>(length));
    m_dialogue.receive(bytes, static_cast<std::size_t>(length));
    return true;
}

/// Waits for the line with the token; what follows it is his first command.
bool CConsoleOperator::admit(const char* bytes, std::size_t length) {
    m_introduction.append(bytes, length);
    const std::size_t end = m_introduction.find('\n');
    if (end == std::string::npos) return m_introduction.size() <= m_token.size();
    if (!isEqual(m_introduction.data(), end, m_token)) return false;
    m_admitted = true;
    m_dialogue.receive(m_introduction.data() + end + 1, m_introduction.size() - end - 1);
    m_introduction.clear();
    return true;
}

void CConsoleOperator::keep(const char* bytes, std::size_t length) {
    const bool has_room = m_left_out == 0 && m_kept.size() + length <= MAX_KEPT &&
                          m_budget.kept_bytes + length <= MAX_KEPT_BY_ALL;
    if (!has_room) {
        m_left_out += length;
        return;
    }
    try {
        m_kept.append(bytes, length);
        m_budget.kept_bytes += length;
    } catch (const std::bad_alloc&) {
        m_left_out += length;
    }
}

/// Says what the answer lacks.
void CConsoleOperator::endAnswer() {
    if (m_left_out == 0) return;
    const std::string text = "the answer was too long: " + std::to_string(m_left_out) + " bytes left out\n";
    m_left_out = 0;
    // Beyond the bound, but it is one line for one answer, and the next waits until this one has been read.
    m_kept += text;
    m_budget.kept_bytes += text.size();
}

/// Sends what he takes at once; false when he has gone.
bool CConsoleOperator::flush() {
    while (unsent() > 0) {
        const int sent = Transport::send(m_handle, m_kept.data() + m_sent, unsent());
        if (sent <= 0) return sent == 0;
        m_sent += static_cast<std::size_t>(sent);
    }
    m_budget.kept_bytes -= m_kept.size();
    m_sent = 0;
    std::string().swap(m_kept);
    return true;
}

void CConsoleOperator::dismiss(const char* text) {
    const std::string line = text;
    Transport::send(m_handle, line.data(), line.size());
}

bool CConsoleOperator::isOverdue(std::uint64_t now_ms) const {
    return !m_admitted && now_ms - m_since_ms > TOKEN_TIME_MS;
}

}  // namespace Veltro::Plinth
