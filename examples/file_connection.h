// One client of the file server.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "file_range.h"
#include "file_root.h"
#include "http_answer.h"
#include "http_request.h"
#include "live_handlers.h"

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
class CFileConnection : public Veltro::Ravelo::CNetHandler {
public:
    static constexpr unsigned MESSAGE_STOP = 100;

    CFileConnection(std::unique_ptr<Veltro::Ravelo::CSockStream> stream, SFileServer& server)
        : CNetHandler(server.pool),
          m_server(server),
          m_stream(std::move(stream)),
          m_sender(Veltro::Ravelo::CStreamSender::Create()) {}

    /// Begins to serve. The object may be gone when this returns: other threads call it back by then.
    void Start() {
        m_server.live.Add(GetID());
        AddRef();
        start();
        DecRef();
    }

private:
    enum class EState { READING, OPENING, SENDING, FINISHING, LINGERING, CLOSED };
    enum : unsigned { MESSAGE_OPEN = 101, MESSAGE_OPENED = 102, MESSAGE_GO_ON = 103 };

    /// So much a callback sends at most before it lets others go first.
    static constexpr std::size_t SHARE = 512 * 1024;

    void start() {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_sender != nullptr) {
            m_sender->Attach(this, m_stream.get());
            m_sender->WaitException(GetID());
        }
        m_timer = SetTimer(m_server.timeout_us);
        if (m_sender == nullptr || read_on() != 0) hang_up();
    }

    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_state != EState::READING && m_state != EState::LINGERING) return -1;
        const int received =
            m_stream->Recv(m_input + m_filled, static_cast<unsigned>(sizeof m_input - m_filled));
        if (received < 0) return hang_up();
        if (m_state == EState::LINGERING) return -1;  // to throw away
        m_filled += static_cast<std::size_t>(received);
        if (received > 0) read_head();
        return -1;
    }
    int handle_output(int fd) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_state != EState::CLOSED) m_sender->handle_output(fd);
        return -1;
    }
    int handle_message(long sender, unsigned int type, long) override {
        using namespace Veltro::Ravelo;
        if (type == MESSAGE_OPEN) return open_file();
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_state == EState::CLOSED) return 0;
        const bool of_file = m_file != nullptr && sender == m_file->GetID();
        const bool of_sender = sender == m_sender->GetID();
        if (type == MESSAGE_STOP || (type == NOTIFY_STREAM_EXCEPTION && of_sender)) return hang_up();
        if (type == NOTIFY_FILE_ERROR && of_file) return hang_up();  // its length was promised
        if (type == MESSAGE_OPENED) return begin_answer();
        if (type == NOTIFY_SEND_FINISH && of_sender && m_state == EState::FINISHING) return finish();
        const bool goes_on = type == MESSAGE_GO_ON || (type == NOTIFY_FILE_READABLE && of_file) ||
                             (type == NOTIFY_BUFFER_FREE && of_sender);
        return goes_on && m_state == EState::SENDING ? pump() : 0;
    }
    /// A client that sends no whole request in time, or takes nothing of its answer, is left.
    std::int64_t handle_timeout(long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_state == EState::CLOSED) return -1;
        const std::uint64_t sent = m_sender->GetCounters().bytes_sent;
        const bool moved = sent != m_sent_before || m_requests != m_requests_before;
        m_sent_before = sent;
        m_requests_before = m_requests;
        if (!moved && m_state != EState::OPENING) hang_up();
        return 0;
    }
    int handle_close(CNetHandler*) override {
        m_server.live.Remove(GetID());
        delete this;
        return 0;
    }

    int read_on() PLINTH_REQUIRES(m_mutex) {
        m_state = EState::READING;
        return RegisterSock(*m_stream, Veltro::Ravelo::EventMask::Read, 0);
    }
    /// Takes the first request of what has come in, if it is complete.
    void read_head() PLINTH_REQUIRES(m_mutex) {
        m_parser.Attach(m_input, static_cast<unsigned>(m_filled));
        int status = m_request.Parse(m_parser);
        if (status == CHttpRequest::INCOMPLETE) {
            if (m_filled < sizeof m_input) return;
            status = 431;
        }
        UnregisterSock(*m_stream, Veltro::Ravelo::EventMask::Read);
        if (status == CHttpRequest::OK && !m_request.m_get && !m_request.m_head) status = 501;
        if (status == CHttpRequest::OK && m_request.m_body_bytes > 0) status = 413;
        if (status == CHttpRequest::OK) status = CFileRoot::Decode(m_request.m_target, m_path);
        if (status != CHttpRequest::OK) {
            m_refusing = true;  // what follows that has no meaning
            answer_status(status);
            return;
        }
        m_range = m_request.m_range;
        m_if_range = m_request.m_if_range;
        const auto taken = static_cast<std::size_t>(m_parser.GetCurOffset());
        std::memmove(m_input, m_input + taken, m_filled - taken);
        m_filled -= taken;
        m_requests += 1;
        m_state = EState::OPENING;
        NotifyIO(GetID(), MESSAGE_OPEN, 0);
    }

    /// On a file thread, without the lock: nobody waits for what this asks of the system.
    int open_file() {
        std::string path;
        {
            Veltro::Plinth::CLockGuard guard(m_mutex);
            path = m_path;
        }
        path = m_server.root.Find(path);
        auto* file =
            path.empty() ? nullptr : Veltro::Ravelo::CNFile::Open(GetID(), path.c_str(), "rb", nullptr);
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_state != EState::OPENING) {
            if (file != nullptr) file->Close();
            return 0;
        }
        m_file = file;
        Notify(GetID(), MESSAGE_OPENED, 0);
        return 0;
    }

    int begin_answer() PLINTH_REQUIRES(m_mutex) {
        Veltro::Ravelo::NFile_Info info;
        if (m_state != EState::OPENING) return 0;
        if (m_file == nullptr || m_file->Stat(&info) != 0) return answer_status(404);
        char tag[64];
        std::snprintf(tag, sizeof tag, "\"%llx-%llx\"", static_cast<unsigned long long>(info.size),
                      static_cast<unsigned long long>(info.modify_time));
        const bool part = m_request.m_get && (m_if_range.empty() || m_if_range == tag);
        const SFileRange range = SFileRange::Of(part ? m_range : "", info.size);
        std::string fields = std::string("Accept-Ranges: bytes\r\nETag: ") + tag + "\r\n";
        const std::string size = std::to_string(info.size);
        int status = 200;
        if (range.kind == SFileRange::EKind::NONE) {
            status = 416;
            fields += "Content-Range: bytes */" + size + "\r\n";
        } else if (range.kind == SFileRange::EKind::PART) {
            status = 206;
            fields += "Content-Range: bytes " + std::to_string(range.begin) + "-" +
                      std::to_string(range.begin + range.length - 1) + "/" + size + "\r\n";
        }
        std::string head;
        m_server.answers.AppendHead(head, status, range.length, fields, m_request.m_keep_alive);
        m_left = m_request.m_head ? 0 : range.length;
        if (range.begin > 0) m_file->Seek(static_cast<std::int64_t>(range.begin), 0);
        head.copy(m_block, sizeof m_block);
        m_block_bytes = static_cast<unsigned>(head.size());
        m_state = EState::SENDING;
        return pump();
    }
    int answer_status(int status) PLINTH_REQUIRES(m_mutex) {
        std::string answer;
        m_server.answers.AppendStatus(answer, status, m_request.m_head,
                                      m_request.m_keep_alive && !m_refusing);
        answer.copy(m_block, sizeof m_block);
        m_block_bytes = static_cast<unsigned>(answer.size());
        m_left = 0;
        m_state = EState::SENDING;
        return pump();
    }

    /// Moves bytes from the file to the sender until one of them has to be waited for.
    int pump() PLINTH_REQUIRES(m_mutex) {
        for (std::size_t moved = 0; m_block_bytes > 0 || m_left > 0;) {
            if (moved >= SHARE) {
                Notify(GetID(), MESSAGE_GO_ON, 0);
                return 0;
            }
            if (m_block_bytes == 0) {
                bool eof = false;
                const auto wanted = static_cast<unsigned>(std::min<std::uint64_t>(m_left, sizeof m_block));
                const int got = m_file->Read(m_block, wanted, eof);
                if (got == 0) return eof ? hang_up() : 0;  // shorter than promised; or told when to go on
                m_block_bytes = static_cast<unsigned>(got);
                m_left -= m_block_bytes;
            }
            if (m_sender->Put(m_block, m_block_bytes) != 0) {
                // Answered by message when there is room; a socket that failed is told, too.
                m_sender->WaitBufferSize(GetID(), m_block_bytes);
                return 0;
            }
            moved += std::exchange(m_block_bytes, 0U);
        }
        close_file();
        m_state = EState::FINISHING;
        m_sender->WaitSendFinish(GetID());
        return 0;
    }
    /// An answer has gone out.
    int finish() PLINTH_REQUIRES(m_mutex) {
        if (!m_refusing && !m_request.m_keep_alive) return hang_up();
        if (read_on() != 0) return hang_up();
        if (m_refusing) {
            // Closing while the client still sends would take the answer away from it.
            m_state = EState::LINGERING;
            m_filled = 0;
        } else if (m_filled > 0) {
            read_head();
        }
        return 0;
    }
    void close_file() PLINTH_REQUIRES(m_mutex) {
        if (m_file != nullptr) m_file->Close();
        m_file = nullptr;
    }
    /// A second call does nothing.
    int hang_up() PLINTH_REQUIRES(m_mutex) {
        if (m_state == EState::CLOSED) return -1;
        m_state = EState::CLOSED;
        close_file();
        if (m_sender != nullptr) {
            m_sender->Detach();
            m_sender->Close();
        }
        RemoveSock(*m_stream);
        m_stream->Close();
        DestroyTimer(m_timer);
        Close();
        return -1;
    }

    SFileServer& m_server;
    Veltro::Plinth::CMutex m_mutex;  ///< messages of the file, the sender and the socket arrive on any worker
    const std::unique_ptr<Veltro::Ravelo::CSockStream> m_stream;
    Veltro::Ravelo::CStreamSender* const m_sender;                        ///< ours until hang_up()
    Veltro::Ravelo::CNFile* m_file PLINTH_GUARDED_BY(m_mutex) = nullptr;  ///< while an answer is under way
    EState m_state PLINTH_GUARDED_BY(m_mutex) = EState::READING;
    bool m_refusing PLINTH_GUARDED_BY(m_mutex) = false;
    CHttpRequest m_request PLINTH_GUARDED_BY(m_mutex);
    Veltro::Ravelo::CStrParser m_parser PLINTH_GUARDED_BY(m_mutex);
    std::string m_path PLINTH_GUARDED_BY(m_mutex);
    std::string m_range PLINTH_GUARDED_BY(m_mutex);
    std::string m_if_range PLINTH_GUARDED_BY(m_mutex);
    std::uint64_t m_left PLINTH_GUARDED_BY(m_mutex) = 0;    ///< of the file, to be read
    unsigned m_block_bytes PLINTH_GUARDED_BY(m_mutex) = 0;  ///< read, to be sent
    std::size_t m_filled PLINTH_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_requests PLINTH_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_requests_before PLINTH_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_sent_before PLINTH_GUARDED_BY(m_mutex) = 0;
    long m_timer PLINTH_GUARDED_BY(m_mutex) = 0;
    char m_input[16 * 1024] PLINTH_GUARDED_BY(m_mutex);  ///< as much as the head of a request may have
    char m_block[32 * 1024] PLINTH_GUARDED_BY(m_mutex);
};
