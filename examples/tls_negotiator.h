// A thread that waits for handshakes.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <deque>
#include <functional>
#include <memory>
#include <utility>

#include "tls_options.h"

/// Negotiates with the clients it is given, one after the other, and hands over those that agreed.
class CNegotiator : public Veltro::Plinth::CThread {
public:
    using FServe = std::function<void(std::unique_ptr<Veltro::Ravelo::CSslStream>)>;

    CNegotiator(const CTlsOptions& options, FServe serve)
        : CThread("negotiator", Veltro::Plinth::PRIORITY_NORMAL, Veltro::Plinth::POLICY_NORMAL, 0),
          m_options(options),
          m_serve(std::move(serve)) {}
    ~CNegotiator() override { Stop(); }

    bool Start() {
        int timeout_ms = m_options.GetNumber("timeout", 5000);
        const int resume = m_options.GetNumber("resume", 3);
        return UseCertificates(m_acceptor, m_options) &&
               m_acceptor.SetOption(Veltro::Ravelo::SslOptTimeout, 1, &timeout_ms) == 0 &&
               m_acceptor.SetOption(Veltro::Ravelo::SslOptSession, resume, nullptr) == 0 && createThread();
    }
    /// Takes a connection, unless too many wait already.
    void Give(std::unique_ptr<Veltro::Ravelo::CSockStream> stream) {
        {
            Veltro::Plinth::CLockGuard guard(m_mutex);
            if (m_waiting.size() >= MOST_WAITING) return;
            m_waiting.push_back(std::move(stream));
        }
        m_given.post();
    }
    void Stop() {
        cancelThread();
        m_given.post();
        destroyThread();
    }

private:
    static constexpr std::size_t MOST_WAITING = 1000;

    void threadProc() override {
        while (looping()) {
            m_given.pend();
            std::unique_ptr<Veltro::Ravelo::CSockStream> stream = take();
            if (stream == nullptr) continue;
            auto tls = std::make_unique<Veltro::Ravelo::CSslStream>();
            if (m_acceptor.Accept(*tls, stream.release()) != 0 || IsRevoked(*tls, m_options)) continue;
            m_serve(std::move(tls));
        }
    }
    std::unique_ptr<Veltro::Ravelo::CSockStream> take() {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_waiting.empty()) return nullptr;
        std::unique_ptr<Veltro::Ravelo::CSockStream> stream = std::move(m_waiting.front());
        m_waiting.pop_front();
        return stream;
    }

    const CTlsOptions& m_options;
    const FServe m_serve;
    Veltro::Ravelo::CSslAcceptor m_acceptor;  // not open: it negotiates only
    Veltro::Plinth::CSemaphore m_given;
    Veltro::Plinth::CMutex m_mutex;
    std::deque<std::unique_ptr<Veltro::Ravelo::CSockStream>> m_waiting PLINTH_GUARDED_BY(m_mutex);
};
