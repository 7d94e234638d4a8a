// CSslAcceptor's life, options and accepting.
#include <Ravelo/SockStream.h>
#include <Ravelo/SslAcceptor.h>
#include <Ravelo/SslStream.h>

#include <memory>
#include <new>

#include "Log.h"
#include "Socket/SockAddrSystem.h"
#include "Socket/SslAcceptorRecord.h"
#include "Socket/SslCall.h"
#include "Socket/SslContext.h"
#include "Socket/SslSetup.h"

namespace Veltro::Ravelo {

CSslAcceptor::CSslAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR), m_internal(nullptr) {
    if (SslSetup::keepPastExit() == 0) m_internal = new (std::nothrow) SSslAcceptorRecord;
}

CSslAcceptor::~CSslAcceptor() {
    if (m_internal == nullptr) return;
    // The base closes the socket, once.
    m_internal->m_acceptor.Detach();
    delete m_internal;
}

int CSslAcceptor::Open(const CSockAddr& local) {
    if (m_internal == nullptr) return -1;
    const unsigned int family = addressFamilyCode(local);
    if (systemFamily(family) < 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : invalid local addresst type[%u]!\n", __func__, family);
        return -1;
    }
    if (m_fd != -1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : socket fd[%d] has opened, close old first\n",
                        __func__, m_fd);
        Close();
    }
    CSockAcceptor& acceptor = m_internal->m_acceptor;
    acceptor.Detach();
    if (acceptor.Open(local) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : ssl open error! error:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        acceptor.Close();
        return -1;
    }
    m_fd = acceptor.GetHandle();
    return 0;
}

int CSslAcceptor::SetPemPath(const char* dir) {
    return m_internal != nullptr ? copyOptionText(&m_internal->m_pem_path, dir) : -1;
}

void CSslAcceptor::SetCertVerityPeer(bool verify) {
    constexpr int ANY = SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT | SSL_VERIFY_CLIENT_ONCE;
    if (m_internal != nullptr) m_internal->m_verify_flags = verify ? ANY : 0;
}

int CSslAcceptor::SetOption(int option, int type, void* value) {
    if (m_internal == nullptr) return -1;
    switch (option) {
        case SslOptSession:
            m_internal->m_session_type = static_cast<std::uint32_t>(type);
            return 0;
        case SslOptCert:
            return m_internal->setCert(type, value);
        case SslOptProtocolBan:
            m_internal->m_protocol_ban |= static_cast<std::uint32_t>(type);
            return 0;
        case SslOptCipherList:
            return m_internal->takeCipherList(type, value);
        case SslOptTimeout:
            return m_internal->setTimeout(type, value, 1);
        case SslOptKeyPasswd:
            return m_internal->setPassword(value);
        default:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Unknown Option %d Type %d !\n", __func__, option,
                            type);
            return 0;
    }
}

int CSslAcceptor::SetOption(int option, int type, void* value, int len) {
    if (m_internal == nullptr) return -1;
    const std::optional<int> set = m_internal->setSized(option, type, value, len);
    return set ? *set : SetOption(option, type, value);
}

int CSslAcceptor::option_valid() {
    if (m_internal->m_pem_path != nullptr || m_internal->m_x509 != nullptr) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : server need the certificate compulsorily \n", __func__);
    return -1;
}

int CSslAcceptor::Accept(CSslStream& out, CSockStream* stream) {
    if (stream == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s stream is NULL\n", __func__);
        return -1;
    }
    std::unique_ptr<CSockStream> owned(stream);
    if (m_internal == nullptr || option_valid() != 0) return -1;
    stream->SetBlockOpt(true);
    TSslContext& ctx = m_internal->m_ctx;
    if (ctx == nullptr) ctx.reset(init_ssl_ctx());
    if (ctx == nullptr) return -1;
    TSslConnection ssl(init_ssl(stream->GetHandle()));
    if (ssl == nullptr) {
        ctx.reset();
        return -1;
    }
    if (!m_internal->applyCiphers(ssl.get(), SslContext::DEFAULT_CIPHERS))
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "Cipher List Rule Set Wrong!\n");
    const SSslOutcome outcome = handshake(ssl.get(), *stream);
    // Any other result has always counted as success.
    if (outcome.result == -1) {
        ssl.reset();
        ctx.reset();
        owned.reset();
        SslContext::printErrors();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_accept failed, fd[%d], error:%d, %s\n", __func__,
                        m_fd, outcome.socket_error, SocketApi::errorText(outcome.socket_error).data());
        return -1;
    }
    if (out.SetSsl(ssl.get()) != 0) return -1;
    ssl.release();  // it is the stream's
    out.SetStream(owned.release());
    out.SetBlockOpt(false);
    return 0;
}

int CSslAcceptor::Accept(CSslStream& out, CSockAddr* remote) {
    CSockStream* stream = wait_for_client(remote);
    return stream != nullptr ? Accept(out, stream) : -1;
}

CSslStream* CSslAcceptor::Accept(CSockAddr* remote) {
    std::unique_ptr<CSslStream> out(new (std::nothrow) CSslStream);
    return out != nullptr && Accept(*out, remote) == 0 ? out.release() : nullptr;
}

/// Waits for a TCP connection. @return a stream of the caller's, or null.
CSockStream* CSslAcceptor::wait_for_client(CSockAddr* remote) {
    if (m_internal == nullptr) return nullptr;
    CSockAcceptor& acceptor = m_internal->m_acceptor;
    if (acceptor.GetHandle() != m_fd) {
        // The base's Close() and the like know of one descriptor only.
        acceptor.Detach();
        acceptor.Attach(m_fd);
    }
    acceptor.SetBlockOpt(true);
    return acceptor.Accept(remote);
}

/// Negotiates over a blocking stream, within the time-out if there is one.
SSslOutcome CSslAcceptor::handshake(ssl_st* ssl, CSockStream& stream) {
    const int fd = stream.GetHandle();
    const int timeout_ms = m_internal->m_timeout_type == 1 ? m_internal->m_handshake_timeout : 0;
    // Else the first answer waits until the client's system acknowledges the tickets.
    SocketApi::setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    if (timeout_ms != 0) {
        set_sock_timeout(fd, timeout_ms, timeout_ms);
        SslBio::setTimeout(SSL_get_rbio(ssl), timeout_ms);
    }
    const SSslOutcome outcome = callSsl(ssl, fd, [ssl] { return SSL_accept(ssl); });
    if (timeout_ms != 0 && outcome.result != -1) {
        SslBio::setTimeout(SSL_get_rbio(ssl), 0);
        set_sock_timeout(fd, 0, 0);
    }
    return outcome;
}

}  // namespace Veltro::Ravelo
