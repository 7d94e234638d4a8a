// One client of the echo server.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <memory>
#include <utility>

#include "live_handlers.h"

/// What all connections share; outlives them.
struct SEchoServer {
    int pool = 0;
    CLiveHandlers live;
};

/// Sends back what it receives. What the peer does not take is kept, and reading pauses until it has been
/// taken, so that a client that never reads costs one buffer. Ends with its peer, after a silence, or by a
/// message.
class CEchoConnection : public Veltro::Ravelo::CNetHandler {
public:
    CEchoConnection(std::unique_ptr<Veltro::Ravelo::CSockStream> stream, SEchoServer& server)
        : CNetHandler(server.pool), m_live(server.live), m_stream(std::move(stream)) {}

    /// Begins to serve. The object may be gone when this returns: other threads call it back by then.
    void Start() {
        m_live.Add(GetID());
        bool registered = false;
        {
            Veltro::Plinth::CLockGuard guard(m_mutex);
            registered = RegisterSock(*m_stream, Veltro::Ravelo::EventMask::Read, SILENCE_US) == 0;
        }
        if (!registered) Close();
    }

private:
    static constexpr int SILENCE_US = 300'000'000;

    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (!m_stream->IsValid()) return -1;
        const int received = m_stream->Recv(m_buffer, sizeof m_buffer);
        if (received < 0) return hang_up();
        m_begin = 0;
        m_end = static_cast<unsigned>(received);
        return send_rest();
    }
    int handle_output(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return m_stream->IsValid() ? send_rest() : -1;
    }
    int handle_input_timeout(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return hang_up();
    }
    int handle_output_timeout(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return hang_up();
    }
    int handle_message(long, unsigned int type, long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return type == MESSAGE_STOP ? hang_up() : 0;
    }
    int handle_close(CNetHandler*) override {
        m_live.Remove(GetID());
        delete this;
        return 0;
    }

    /// Sends what the buffer holds, and reads again once it is empty.
    int send_rest() PLINTH_REQUIRES(m_mutex) {
        while (m_begin < m_end) {
            const int sent = m_stream->Send(m_buffer + m_begin, m_end - m_begin);
            if (sent < 0) return hang_up();
            if (sent == 0) break;
            m_begin += static_cast<unsigned>(sent);
        }
        return m_paused == (m_begin < m_end) ? 0 : pause_reading(!m_paused);
    }
    /// Waits for room in the peer's window instead of its bytes, or the other way round.
    int pause_reading(bool pause) PLINTH_REQUIRES(m_mutex) {
        using namespace Veltro::Ravelo;
        m_paused = pause;
        if (RegisterSock(*m_stream, pause ? EventMask::Write : EventMask::Read, SILENCE_US) != 0) {
            return hang_up();
        }
        UnregisterSock(*m_stream, pause ? EventMask::Read : EventMask::Write);
        return 0;
    }
    /// The registration goes first, then the socket, then the handler. A second call does nothing.
    int hang_up() PLINTH_REQUIRES(m_mutex) {
        if (!m_stream->IsValid()) return -1;
        RemoveSock(*m_stream);
        m_stream->Close();
        Close();
        return -1;
    }

    CLiveHandlers& m_live;
    Veltro::Plinth::CMutex m_mutex;  ///< a message may arrive while a socket callback runs
    const std::unique_ptr<Veltro::Ravelo::CSockStream> m_stream PLINTH_PT_GUARDED_BY(m_mutex);
    unsigned m_begin PLINTH_GUARDED_BY(m_mutex) = 0;
    unsigned m_end PLINTH_GUARDED_BY(m_mutex) = 0;
    bool m_paused PLINTH_GUARDED_BY(m_mutex) = false;
    char m_buffer[16 * 1024];
};
