// One client of the file server.
#pragma once

#include <string>
#include <utility>

#include "client_handler.h"
#include "file_answer.h"
#include "file_requests.h"
#include "file_root.h"

/// What all connections share; outlives them.
struct SFileServer {
    int pool = 0;
    int timeout_us = 10'000'000;  ///< in which a request must arrive, and some of an answer be taken
    CLiveHandlers live;
    CHttpAnswers answers;
    CFileRoot root;
};

/// Answers the requests of one client one after the other, each with the bytes of a file. What may block runs
/// elsewhere: a message to itself opens the file on a file thread, the file reads ahead, and the sender keeps
/// what the client does not take yet. While an answer is under way nothing is read from the client.
class CFileConnection : public CClientHandler {
public:
    CFileConnection(CClientStream stream, SFileServer& server)
        : CClientHandler(server.pool, std::move(stream), server.live, server.timeout_us), m_server(server) {}

private:
    enum class EState { READING, OPENING, SENDING, LINGERING };
    enum : unsigned { MESSAGE_OPEN = 101, MESSAGE_GO_ON = 102 };

    int handle_message(long sender, unsigned int type, long info) override {
        return type == MESSAGE_OPEN ? open_file() : CClientHandler::handle_message(sender, type, info);
    }
    void take_message(long sender, unsigned type) override PLINTH_REQUIRES(m_mutex) {
        using namespace Veltro::Ravelo;
        const bool of_file = m_answer.IsOfFile(sender);
        const bool of_sender = sender == m_sender->GetID();
        if (type == NOTIFY_FILE_ERROR && of_file) return hang_up();  // its length was promised
        const bool goes_on = type == MESSAGE_GO_ON || (type == NOTIFY_FILE_READABLE && of_file) ||
                             ((type == NOTIFY_BUFFER_FREE || type == NOTIFY_SEND_FINISH) && of_sender);
        if (goes_on && m_state == EState::SENDING) pump();
    }
    /// A client that sends no whole request in time, or takes nothing of its answer, is left.
    std::uint64_t progress() override PLINTH_REQUIRES(m_mutex) {
        if (m_state == EState::OPENING) m_steps += 1;  // the disk's fault
        return m_sender->GetCounters().bytes_sent + m_steps;
    }
    void release() override PLINTH_REQUIRES(m_mutex) { m_answer.Close(); }

    /// Reads until a request is complete or there is no more: the reactor does not report bytes that wait
    /// inside a TLS stream.
    void receive() override PLINTH_REQUIRES(m_mutex) {
        if (m_state == EState::OPENING || m_state == EState::SENDING) {
            m_ignoring = true;  // it sends on: that has to wait
            ignore_input();
        }
        while (!is_closed() && m_state == EState::READING && !take_request()) {
            const int received = m_requests.Receive(m_stream);
            if (received < 0) return hang_up();
            if (received == 0) return;
        }
        char rest[4096];  // to throw away
        if (!is_closed() && m_state == EState::LINGERING && m_stream.Recv(rest, sizeof rest) < 0) hang_up();
    }
    /// Takes a request if one is complete; false if not.
    bool take_request() PLINTH_REQUIRES(m_mutex) {
        const int status = m_requests.Next(m_request);
        if (status == CHttpRequest::INCOMPLETE) return false;
        m_steps += 1;
        m_refusing = status != CHttpRequest::OK;
        if (m_refusing) {
            m_answer.BeginStatus(status, m_request, m_server.answers);
            pump();
        } else {
            m_state = EState::OPENING;
            NotifyIO(GetID(), MESSAGE_OPEN, 0);
        }
        return true;
    }
    /// On a file thread, and without the lock for what the system may take its time.
    int open_file() {
        std::string path;
        {
            Veltro::Plinth::CLockGuard guard(m_mutex);
            path = m_request.path;
        }
        Veltro::Ravelo::CNFile* file = m_server.root.OpenFile(GetID(), path);
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (is_closed()) {
            if (file != nullptr) file->Close();
            return 0;
        }
        m_answer.Begin(file, m_request, m_server.answers);
        pump();
        return 0;
    }

    void pump() PLINTH_REQUIRES(m_mutex) {
        m_state = EState::SENDING;
        switch (m_answer.Pump(*m_sender, GetID())) {
            case CFileAnswer::EProgress::TOO_FEW:
                return hang_up();
            case CFileAnswer::EProgress::MORE:
                return Notify(GetID(), MESSAGE_GO_ON, 0);
            case CFileAnswer::EProgress::WAITS:
                return;
            case CFileAnswer::EProgress::ALL:
                break;
        }
        if (m_sender->GetCounters().bytes_queued == 0) return finish();
        m_sender->WaitSendFinish(GetID());
    }
    /// An answer has gone out.
    void finish() PLINTH_REQUIRES(m_mutex) {
        if (!m_refusing && !m_request.keep_alive) return hang_up();
        // Closing while the client still sends would take a refusal away from it.
        m_state = m_refusing ? EState::LINGERING : EState::READING;
        if (std::exchange(m_ignoring, false)) wait_for_input();
        if (!is_closed() && (m_requests.HasBytes() || m_stream.MayHoldBytes())) receive();
    }

    SFileServer& m_server;
    EState m_state PLINTH_GUARDED_BY(m_mutex) = EState::READING;
    CFileRequests m_requests PLINTH_GUARDED_BY(m_mutex);
    SFileRequest m_request PLINTH_GUARDED_BY(m_mutex);
    CFileAnswer m_answer PLINTH_GUARDED_BY(m_mutex);
    bool m_ignoring PLINTH_GUARDED_BY(m_mutex) = false;  ///< what the client sends
    bool m_refusing PLINTH_GUARDED_BY(m_mutex) = false;
    std::uint64_t m_steps PLINTH_GUARDED_BY(m_mutex) = 0;  ///< requests; what else keeps the client
};
