// One client of the live stream server.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "live_handlers.h"

/// What all clients share; outlives them.
struct SLiveServer {
    Veltro::Ravelo::CMediaBuffer buffer;
    CLiveHandlers live;
};

/// Reads a request, and lets a sender of the stream's buffer do the rest. Ends with its client, with the
/// socket, or by a message.
class CLiveClient : public Veltro::Ravelo::CNetHandler {
public:
    CLiveClient(std::unique_ptr<Veltro::Ravelo::CSockStream> stream, SLiveServer& server)
        : m_server(server), m_stream(std::move(stream)) {}

    /// Begins to serve. The object may be gone when this returns: other threads call it back by then.
    void Start() {
        m_server.live.Add(GetID());
        bool registered = false;
        {
            Veltro::Plinth::CLockGuard guard(m_mutex);
            registered = RegisterSock(*m_stream, Veltro::Ravelo::EventMask::Read, REQUEST_US) == 0;
        }
        if (!registered) Close();
    }

private:
    static constexpr int REQUEST_US = 10'000'000;
    static constexpr unsigned SILENCE_S = 120;  ///< for how long a client may take nothing
    static constexpr std::size_t REQUEST_BYTES = 4096;

    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (!m_stream->IsValid()) return -1;
        char bytes[1024];
        const int received = m_stream->Recv(bytes, sizeof bytes);
        if (received < 0) return hang_up();
        if (m_sender != nullptr) return -1;  // whatever a client says while it listens; no time-out any more
        m_request.append(bytes, static_cast<std::size_t>(received));
        if (m_request.find("\r\n\r\n") != m_request.npos) return answer();
        return m_request.size() < REQUEST_BYTES ? 0 : refuse("431 Request Header Fields Too Large");
    }
    int handle_input_timeout(int) override { return end(); }
    int handle_message(long, unsigned int type, long) override {
        if (type == MESSAGE_STOP) say_goodbye();
        return type == MESSAGE_STOP || type == Veltro::Ravelo::NOTIFY_STREAM_EXCEPTION ? end() : 0;
    }
    int handle_close(CNetHandler*) override {
        m_server.live.Remove(GetID());
        delete this;
        return 0;
    }

    int answer() PLINTH_REQUIRES(m_mutex) {
        constexpr std::string_view GET = "GET /live.ts";
        constexpr std::string_view LIMIT = "?mbit=";
        const std::string_view request(m_request);
        if (!request.starts_with(GET)) {
            return refuse(request.starts_with("GET /") ? "404 Not Found" : "501 Not Implemented");
        }
        std::string_view rest = request.substr(GET.size());
        unsigned mbit = 0;
        if (rest.starts_with(LIMIT)) {
            rest.remove_prefix(LIMIT.size());
            for (; !rest.empty() && rest[0] >= '0' && rest[0] <= '9' && mbit < 4096; rest.remove_prefix(1)) {
                mbit = mbit * 10 + static_cast<unsigned>(rest[0] - '0');
            }
        }
        if (!rest.starts_with(" HTTP/")) return refuse("404 Not Found");
        // The chunks are the same for all clients, so that those who know none cannot be served.
        if (!rest.starts_with(" HTTP/1.1\r\n")) return refuse("505 HTTP Version Not Supported");
        return join(std::min(mbit, 4095U));
    }
    /// Leaves the stream to a sender, whose first words are the answer's head.
    int join(unsigned mbit) PLINTH_REQUIRES(m_mutex) {
        m_sender = Veltro::Ravelo::CMediaStreamSender::Create();
        if (m_sender == nullptr) return hang_up();
        if (mbit > 0) {
            m_slow.SetRealSocket(m_stream.get());
            m_slow.SetBandWidth(mbit);
        }
        m_sender->Attach(mbit > 0 ? static_cast<Veltro::Ravelo::CSock*>(&m_slow) : m_stream.get());
        m_sender->WaitException(GetID());
        m_sender->SetSendTimeout(SILENCE_S);
        constexpr std::string_view HEAD =
            "HTTP/1.1 200 OK\r\nServer: ravelo\r\nContent-Type: video/mp2t\r\n"
            "Cache-Control: no-store\r\nTransfer-Encoding: chunked\r\n"
            "Connection: close\r\n\r\n";
        m_sender->SendOtherData(HEAD.data(), static_cast<int>(HEAD.size()));
        m_server.buffer.AddSender(m_sender);
        return -1;  // it may listen for ever
    }
    int refuse(std::string_view status) PLINTH_REQUIRES(m_mutex) {
        const std::string answer = "HTTP/1.1 " + std::string(status) +
                                   "\r\nServer: ravelo\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        m_stream->Send(answer.data(), static_cast<unsigned>(answer.size()));
        return hang_up();
    }

    /// The last chunk, behind the last frame, unless the client is in the middle of one.
    void say_goodbye() {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_sender == nullptr || !m_stream->IsValid()) return;
        m_sender->SendOtherData("0\r\n\r\n", 5);
        m_server.buffer.do_send();
    }
    int end() {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return hang_up();
    }
    /// The registration goes first, then the sender, the socket, and the handler. A second call does nothing.
    int hang_up() PLINTH_REQUIRES(m_mutex) {
        if (!m_stream->IsValid()) return -1;
        RemoveSock(*m_stream);
        if (m_sender != nullptr) {
            m_server.buffer.DelSender(m_sender);
            m_sender->Detach();
            m_sender->Close();
        }
        m_stream->Close();
        Close();
        return -1;
    }

    SLiveServer& m_server;
    Veltro::Plinth::CMutex m_mutex;  ///< a message may arrive while a socket callback runs
    const std::unique_ptr<Veltro::Ravelo::CSockStream> m_stream PLINTH_PT_GUARDED_BY(m_mutex);
    std::string m_request PLINTH_GUARDED_BY(m_mutex);
    Veltro::Ravelo::CSimulatorStream m_slow PLINTH_GUARDED_BY(m_mutex);
    Veltro::Ravelo::CMediaStreamSender* m_sender PLINTH_GUARDED_BY(m_mutex) = nullptr;
};
