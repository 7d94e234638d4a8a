// What the connections of several servers have in common: a client that is read from when it suits, sent to
// without waiting, and left when it stalls.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <memory>
#include <utility>

#include "live_handlers.h"

/// A client's socket, plain or over TLS.
class CClientStream {
public:
    CClientStream(std::unique_ptr<Veltro::Ravelo::CSockStream> plain) : m_sock(std::move(plain)) {}
    CClientStream(std::unique_ptr<Veltro::Ravelo::CSslStream> tls) : m_sock(std::move(tls)), m_is_tls(true) {}

    Veltro::Ravelo::CSock& Sock() { return *m_sock; }
    /// @return bytes; 0 to be told when there are more; -1 at the end.
    int Recv(char* buf, unsigned len) {
        using namespace Veltro::Ravelo;
        return m_is_tls ? static_cast<CSslStream&>(*m_sock).Recv(buf, len)
                        : static_cast<CSockStream&>(*m_sock).Recv(buf, len);
    }
    /// Whether bytes may wait inside it, which the reactor does not report.
    bool MayHoldBytes() const { return m_is_tls; }
    /// Ends the stream, and tells a peer over TLS so.
    void Close() { m_sock.reset(); }

private:
    std::unique_ptr<Veltro::Ravelo::CSock> m_sock;
    bool m_is_tls = false;
};

/// Derive from it to say what is read and what is sent; all of that runs under the lock.
class CClientHandler : public Veltro::Ravelo::CNetHandler {
public:
    /// Begins to serve. The object may be gone when this returns: other threads call it back by then.
    void Start() {
        m_live.Add(GetID());
        AddRef();
        start();
        DecRef();
    }

protected:
    /// @param timeout_us in which a client must do something for what it wants.
    CClientHandler(int pool, CClientStream stream, CLiveHandlers& live, int timeout_us)
        : CNetHandler(pool),
          m_live(live),
          m_timeout_us(timeout_us),
          m_sender(Veltro::Ravelo::CStreamSender::Create()),
          m_stream(std::move(stream)) {}

    /// There may be something to read.
    virtual void receive() PLINTH_REQUIRES(m_mutex) = 0;
    /// A message that does not end the connection.
    virtual void take_message(long sender, unsigned type) PLINTH_REQUIRES(m_mutex) = 0;
    /// How much of what the client does for its sake has been done; grows.
    virtual std::uint64_t progress() PLINTH_REQUIRES(m_mutex) = 0;
    /// The connection ends.
    virtual void release() PLINTH_REQUIRES(m_mutex) = 0;

    void wait_for_input() PLINTH_REQUIRES(m_mutex) {
        if (RegisterSock(m_stream.Sock(), Veltro::Ravelo::EventMask::Read, 0) != 0) hang_up();
    }
    void ignore_input() PLINTH_REQUIRES(m_mutex) {
        UnregisterSock(m_stream.Sock(), Veltro::Ravelo::EventMask::Read);
    }
    bool is_closed() const PLINTH_REQUIRES(m_mutex) { return m_closed; }
    /// A second call does nothing.
    void hang_up() PLINTH_REQUIRES(m_mutex) {
        if (std::exchange(m_closed, true)) return;
        release();
        if (m_sender != nullptr) {
            m_sender->Detach();
            m_sender->Close();
        }
        RemoveSock(m_stream.Sock());
        m_stream.Close();
        DestroyTimer(m_timer);
        Close();
    }

    int handle_message(long sender, unsigned int type, long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_closed) return 0;
        const bool failed = type == Veltro::Ravelo::NOTIFY_STREAM_EXCEPTION && sender == m_sender->GetID();
        if (type == MESSAGE_STOP || failed) {
            hang_up();
        } else {
            take_message(sender, type);
        }
        return 0;
    }

    CLiveHandlers& m_live;
    const int m_timeout_us;
    Veltro::Ravelo::CStreamSender* const m_sender;  ///< ours until hang_up()
    Veltro::Plinth::CMutex m_mutex;                 ///< messages, the socket and the timer call on any worker
    CClientStream m_stream PLINTH_GUARDED_BY(m_mutex);

private:
    void start() {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_sender == nullptr) return hang_up();
        m_sender->Attach(this, &m_stream.Sock());
        m_sender->WaitException(GetID());
        m_timer = SetTimer(m_timeout_us);
        wait_for_input();
        if (!m_closed) receive();  // what came with the handshake
    }
    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (!m_closed) receive();
        return -1;
    }
    int handle_output(int fd) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (!m_closed) m_sender->handle_output(fd);
        return -1;
    }
    std::int64_t handle_timeout(long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_closed) return -1;
        const std::uint64_t now = progress();
        if (std::exchange(m_progress_before, now) == now) hang_up();
        return 0;
    }
    int handle_close(CNetHandler*) override {
        m_live.Remove(GetID());
        delete this;
        return 0;
    }

    bool m_closed PLINTH_GUARDED_BY(m_mutex) = false;
    std::uint64_t m_progress_before PLINTH_GUARDED_BY(m_mutex) = 0;
    long m_timer PLINTH_GUARDED_BY(m_mutex) = 0;
};
