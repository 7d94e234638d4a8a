// The requests of one client of the file server.
#pragma once

#include <Ravelo/StrParser.h>

#include <cstring>
#include <string>

#include "file_root.h"
#include "http_request.h"

/// What a request wants of a file.
struct SFileRequest {
    bool head_only = false;
    bool keep_alive = false;
    std::string path;  ///< below the root
    std::string range;
    std::string if_range;
};

/// Turns bytes that come in into requests. Holds the head of one at most, or the beginnings of several. Used
/// by one thread at a time.
class CFileRequests {
public:
    /// Reads once of a stream; there is room while Next() says INCOMPLETE. @return as the stream's Recv().
    template <typename Stream>
    int Receive(Stream& stream) {
        const int received =
            stream.Recv(m_input + m_filled, static_cast<unsigned>(sizeof m_input - m_filled));
        if (received > 0) m_filled += static_cast<unsigned>(received);
        return received;
    }
    /// Whether something has come in that Next() has not read.
    bool HasBytes() const { return m_filled > 0; }
    /// Reads the next request.
    /// @return OK; INCOMPLETE; or the status of a refusal: what follows has no meaning, and is forgotten.
    int Next(SFileRequest& request) {
        if (m_filled == 0) return CHttpRequest::INCOMPLETE;
        m_parser.Attach(m_input, static_cast<unsigned>(m_filled));
        CHttpRequest head;
        int status = head.Parse(m_parser);
        if (status == CHttpRequest::INCOMPLETE) {
            if (m_filled < sizeof m_input) return status;
            status = 431;
        }
        request = SFileRequest{head.m_head, head.m_keep_alive, {}, {}, {}};
        if (status == CHttpRequest::OK && !head.m_get && !head.m_head) status = 501;
        if (status == CHttpRequest::OK && head.m_body_bytes > 0) status = 413;
        if (status == CHttpRequest::OK) status = CFileRoot::Decode(head.m_target, request.path);
        if (status == CHttpRequest::OK) {
            request.range = head.m_range;
            request.if_range = head.m_if_range;
        } else {
            request.keep_alive = false;
        }
        forget(status == CHttpRequest::OK ? static_cast<std::size_t>(m_parser.GetCurOffset()) : m_filled);
        return status;
    }

private:
    void forget(std::size_t bytes) {
        m_filled -= bytes;
        std::memmove(m_input, m_input + bytes, m_filled);
    }

    Veltro::Ravelo::CStrParser m_parser;
    std::size_t m_filled = 0;
    char m_input[16 * 1024];  ///< as much as the head of a request may have
};
