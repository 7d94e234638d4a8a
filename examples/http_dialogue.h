// What a client says and what it is answered, without the socket.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "http_answer.h"
#include "http_request.h"

/// Turns bytes that come in into answers that go out, in order. Holds the head of one request at most, and
/// the answers to what came in at once. Used by one thread at a time.
class CHttpDialogue {
public:
    enum class EState {
        OPEN,     ///< reads requests
        CLOSING,  ///< has given its last answer
        REFUSING  ///< has refused what is no request; what follows that has no meaning
    };

    explicit CHttpDialogue(CHttpAnswers& answers) : m_answers(answers) {}

    /// Where to put what comes in, and how much; never nothing.
    char* Room(unsigned* bytes) {
        *bytes = static_cast<unsigned>(sizeof m_input - m_filled);
        return m_input + m_filled;
    }
    /// Takes what was put there. @return whether a request was completed, or refused.
    bool Take(unsigned bytes) {
        if (m_state != EState::OPEN) return false;
        m_filled += bytes;
        m_parser.Attach(m_input, static_cast<unsigned>(m_filled));
        std::size_t taken = 0;
        bool any = false;
        while (m_state == EState::OPEN && taken < m_filled && (m_body_left > 0 ? skip_body() : read_head())) {
            taken = static_cast<std::size_t>(m_parser.GetCurOffset());
            any = true;
        }
        if (m_state == EState::OPEN && taken == 0 && m_filled == sizeof m_input) refuse(431);
        m_filled = m_state == EState::OPEN ? m_filled - taken : 0;
        std::memmove(m_input, m_input + taken, m_filled);
        return any || m_state != EState::OPEN;
    }
    /// What is to be sent. The caller clears it.
    std::string& Output() { return m_output; }
    EState State() const { return m_state; }
    /// Whether nothing of a request has come in yet.
    bool IsIdle() const { return m_filled == 0 && m_body_left == 0; }

private:
    bool read_head() {
        const int status = m_request.Parse(m_parser);
        if (status == CHttpRequest::INCOMPLETE) return false;
        if (status != CHttpRequest::OK) return refuse(status);
        m_body_left = m_request.m_body_bytes;
        if (m_body_left == 0) {
            answer();
        } else if (m_request.m_expects_continue) {
            m_output += "HTTP/1.1 100 Continue\r\n\r\n";
        }
        return true;
    }
    bool skip_body() {
        const auto wanted = static_cast<unsigned>(m_body_left);  // within the limit of bodies
        m_body_left -= static_cast<unsigned>(m_parser.ConsumeLength(wanted, nullptr, 0));
        if (m_body_left == 0) answer();
        return true;
    }
    void answer() {
        const bool keep = m_request.m_keep_alive;
        if (m_request.m_found) {
            m_answers.AppendPage(m_output, m_request.m_head, keep);
        } else {
            m_answers.AppendStatus(m_output, 404, m_request.m_head, keep);
        }
        if (!keep) m_state = EState::CLOSING;
    }
    bool refuse(int status) {
        m_answers.AppendStatus(m_output, status, false, false);
        m_state = EState::REFUSING;
        return false;
    }

    CHttpAnswers& m_answers;
    EState m_state = EState::OPEN;
    CHttpRequest m_request;
    std::uint64_t m_body_left = 0;
    Veltro::Ravelo::CStrParser m_parser;
    std::string m_output;
    std::size_t m_filled = 0;
    char m_input[16 * 1024];  ///< as much as the head of a request may have
};
