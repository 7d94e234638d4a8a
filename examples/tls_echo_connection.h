// One client of the TLS echo server.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <memory>
#include <utility>

#include "live_handlers.h"

/// Sends back what it receives, as the echo server's CEchoConnection does for plain streams. What differs: it
/// reads until it is told to try again, since the reactor does not report bytes that wait inside a TLS
/// stream; and it ends by deleting the stream, which tells the peer that this is the end.
class CTlsEchoConnection : public Veltro::Ravelo::CNetHandler {
public:
    CTlsEchoConnection(std::unique_ptr<Veltro::Ravelo::CSslStream> stream, CLiveHandlers& live)
        : m_live(live), m_stream(std::move(stream)) {}

    /// Begins to serve. The object may be gone when this returns: other threads call it back by then.
    void Start() {
        m_live.Add(GetID());
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (RegisterSock(*m_stream, Veltro::Ravelo::EventMask::Read, SILENCE_US) != 0) hang_up();
    }

private:
    static constexpr int SILENCE_US = 300'000'000;

    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return m_stream != nullptr ? echo() : -1;
    }
    int handle_output(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return m_stream != nullptr ? echo() : -1;
    }
    int handle_input_timeout(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return hang_up();
    }
    int handle_output_timeout(int) override { return handle_input_timeout(0); }
    int handle_message(long, unsigned int type, long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return type == MESSAGE_STOP ? hang_up() : 0;
    }
    int handle_close(CNetHandler*) override {
        m_live.Remove(GetID());
        delete this;
        return 0;
    }

    /// Sends what the buffer holds and fills it again, until either side is to be tried again.
    int echo() PLINTH_REQUIRES(m_mutex) {
        for (;;) {
            while (m_begin < m_end) {
                const int sent = m_stream->Send(m_buffer + m_begin, m_end - m_begin);
                if (sent < 0) return hang_up();
                if (sent == 0) return wait_for(Veltro::Ravelo::EventMask::Write);
                m_begin += static_cast<unsigned>(sent);
            }
            const int received = m_stream->Recv(m_buffer, sizeof m_buffer);
            if (received < 0) return hang_up();
            if (received == 0) return wait_for(Veltro::Ravelo::EventMask::Read);
            m_begin = 0;
            m_end = static_cast<unsigned>(received);
        }
    }
    /// Waits for room in the peer's window instead of its bytes, or the other way round.
    int wait_for(unsigned event) PLINTH_REQUIRES(m_mutex) {
        using namespace Veltro::Ravelo;
        if (event == m_awaited) return 0;
        if (RegisterSock(*m_stream, event, SILENCE_US) != 0) return hang_up();
        UnregisterSock(*m_stream, m_awaited);
        m_awaited = event;
        return 0;
    }
    /// The registration goes first, then the stream, then the handler. A second call does nothing.
    int hang_up() PLINTH_REQUIRES(m_mutex) {
        if (m_stream == nullptr) return -1;
        RemoveSock(*m_stream);
        m_stream.reset();
        Close();
        return -1;
    }

    CLiveHandlers& m_live;
    Veltro::Plinth::CMutex m_mutex;  ///< a message may arrive while a socket callback runs
    std::unique_ptr<Veltro::Ravelo::CSslStream> m_stream PLINTH_GUARDED_BY(m_mutex);
    unsigned m_awaited PLINTH_GUARDED_BY(m_mutex) = Veltro::Ravelo::EventMask::Read;
    unsigned m_begin PLINTH_GUARDED_BY(m_mutex) = 0;
    unsigned m_end PLINTH_GUARDED_BY(m_mutex) = 0;
    char m_buffer[16 * 1024];
};
