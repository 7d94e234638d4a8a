// One client of the HTTP server.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "http_dialogue.h"
#include "live_handlers.h"

/// What all connections share; outlives them.
struct SHttpServer {
    int pool = 0;
    int timeout_us =
        10'000'000;  ///< for a request to arrive, for an answer to be taken, and between requests
    CLiveHandlers live;
    CHttpAnswers answers;
};

/// Answers the requests of one client in order, as many as have arrived with one Send. It reads no further
/// while the client does not take its answers, so that one costs two buffers at most.
class CHttpConnection : public Veltro::Ravelo::CNetHandler {
public:
    CHttpConnection(std::unique_ptr<Veltro::Ravelo::CSockStream> stream, SHttpServer& server)
        : CNetHandler(server.pool),
          m_server(server),
          m_stream(std::move(stream)),
          m_dialogue(server.answers) {}

    /// Begins to serve. The object may be gone when this returns: other threads call it back by then.
    void Start() {
        m_server.live.Add(GetID());
        bool registered = false;
        {
            Veltro::Plinth::CLockGuard guard(m_mutex);
            registered = RegisterSock(*m_stream, Veltro::Ravelo::EventMask::Read, m_server.timeout_us) == 0;
        }
        if (!registered) Close();
    }

private:
    static constexpr int LINGER_US = 2'000'000;

    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (!m_stream->IsValid()) return -1;
        if (m_paused) return 0;  // what was found before comes again
        if (m_dialogue.IsIdle() && !m_lingering) set_deadline(m_server.timeout_us);
        unsigned room = 0;
        char* place = m_dialogue.Room(&room);
        const int received = m_stream->Recv(place, room);
        if (received < 0) return hang_up();
        if (m_lingering) return wait_on();
        if (m_dialogue.Take(static_cast<unsigned>(received))) set_deadline(m_server.timeout_us);
        return send_answers();
    }
    int handle_output(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return m_stream->IsValid() ? send_answers() : -1;
    }
    int handle_input_timeout(int) override { return end(); }
    int handle_output_timeout(int) override { return end(); }
    int handle_message(long, unsigned int type, long) override { return type == MESSAGE_STOP ? end() : 0; }
    int handle_close(CNetHandler*) override {
        m_server.live.Remove(GetID());
        delete this;
        return 0;
    }

    /// Sends what there is, and reads on once all is sent.
    int send_answers() PLINTH_REQUIRES(m_mutex) {
        std::string& output = m_dialogue.Output();
        while (m_sent < output.size()) {
            const int sent =
                m_stream->Send(output.data() + m_sent, static_cast<unsigned>(output.size() - m_sent));
            if (sent < 0) return hang_up();
            if (sent == 0) return m_paused ? 0 : pause_reading(true);
            m_sent += static_cast<unsigned>(sent);
        }
        output.clear();
        m_sent = 0;
        if (m_dialogue.State() == CHttpDialogue::EState::CLOSING) return hang_up();
        if (m_dialogue.State() == CHttpDialogue::EState::REFUSING && !m_lingering) {
            // Closing while the client still sends would take the answer away from it.
            m_lingering = true;
            set_deadline(LINGER_US);
        }
        if (m_paused && pause_reading(false) != 0) return -1;
        return wait_on();
    }
    /// Waits for room in the client's window instead of its bytes, or the other way round.
    int pause_reading(bool pause) PLINTH_REQUIRES(m_mutex) {
        using Veltro::Ravelo::EventMask::Read, Veltro::Ravelo::EventMask::Write;
        m_paused = pause;
        if (RegisterSock(*m_stream, pause ? Write : Read, m_server.timeout_us) != 0) return hang_up();
        UnregisterSock(*m_stream, pause ? Read : Write);
        return 0;
    }
    /// Waits for the client until the deadline, which bytes that come in drops do not put off.
    int wait_on() PLINTH_REQUIRES(m_mutex) {
        if (m_dialogue.IsIdle() && !m_lingering) return 0;
        const std::int64_t left_us = m_deadline_us - now_us();
        return left_us > 0 ? static_cast<int>(std::max<std::int64_t>(left_us, 1000)) : hang_up();
    }
    void set_deadline(int timeout_us) PLINTH_REQUIRES(m_mutex) { m_deadline_us = now_us() + timeout_us; }
    static std::int64_t now_us() {
        return static_cast<std::int64_t>(Veltro::Plinth::CTime::getCurrentMicroSecond());
    }

    int end() {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return hang_up();
    }
    /// The registration goes first, then the socket, then the handler. A second call does nothing.
    int hang_up() PLINTH_REQUIRES(m_mutex) {
        if (!m_stream->IsValid()) return -1;
        RemoveSock(*m_stream);
        m_stream->Close();
        Close();
        return -1;
    }

    SHttpServer& m_server;
    Veltro::Plinth::CMutex m_mutex;  ///< a message may arrive while a socket callback runs
    const std::unique_ptr<Veltro::Ravelo::CSockStream> m_stream PLINTH_PT_GUARDED_BY(m_mutex);
    CHttpDialogue m_dialogue PLINTH_GUARDED_BY(m_mutex);
    std::size_t m_sent PLINTH_GUARDED_BY(m_mutex) = 0;  ///< of the dialogue's output
    bool m_paused PLINTH_GUARDED_BY(m_mutex) = false;
    bool m_lingering PLINTH_GUARDED_BY(m_mutex) = false;  ///< reads to throw away
    std::int64_t m_deadline_us PLINTH_GUARDED_BY(m_mutex) = 0;
};
