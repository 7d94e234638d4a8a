#pragma once

#include <Ravelo/Sock.h>
#include <Ravelo/SslOption.h>

/// OpenSSL's SSL and SSL_CTX.
struct ssl_st;
struct ssl_ctx_st;

namespace Veltro::Ravelo {

class CSockStream;
class CSslStream;
class CSslX509;
struct SSslAcceptorRecord;
struct SSslOutcome;

/// A TLS listening socket: accepts TCP connections, negotiates as their server and hands them over as
/// CSslStream objects. It needs a certificate, from SetPemPath() or SslOptCert.
///
/// Accept() blocks the calling thread for the handshake; set a time-out, and give it a thread that can wait.
/// Register the object for Read to hear of connections, or let a CSockAcceptor take them and negotiate on
/// other threads, with one CSslAcceptor each. One object is used by one thread at a time.
///
/// What is negotiated with is read from the options at the first Accept(), and again at the first one after a
/// failed handshake; the list of ciphers and the time-out are read at each. Streams that were handed over
/// live on without the acceptor. Clients resume sessions of the same acceptor as long as no handshake fails.
class RAVELO_API CSslAcceptor : public CSock {
public:
    CSslAcceptor();
    ~CSslAcceptor() override;
    CSslAcceptor(const CSslAcceptor&) = delete;
    CSslAcceptor& operator=(const CSslAcceptor&) = delete;

    /// Listens on an endpoint, as CSockAcceptor::Open(). @return 0, or -1.
    int Open(const CSockAddr& local);

    /// @name Options
    /// @{

    /// Where the own certificate chain (cacert.pem) and its key (privkey.pem) are, unless SslOptCert brings
    /// an own certificate.
    /// @param dir copied; with the file's name at most 127 bytes count; UTF-8.
    /// @return 0; -1 without memory, or if it is null: then there is no folder.
    int SetPemPath(const char* dir);
    /// Whether clients must show a certificate, any one: none is checked. Without effect if SslOptCert brings
    /// the own certificate; ask for SslCertVerifyPeer then.
    void SetCertVerityPeer(bool verify);
    /// Sets an option:
    /// - SslOptSession: type is SslSessionId and SslSessionTicket flags.
    /// - SslOptCert: type is SslCert flags; value is a CSslX509 made by new, owned by this object from then
    ///   on. The former one is deleted. SslCertVerifyPeer refuses clients without a certificate, too.
    /// - SslOptProtocolBan: type is SslBan flags, which add to those that stand: SSLv2 and SSLv3 at first.
    /// - SslOptCipherList: with type 1, value is the list, a text made by new char[] and owned by this object
    ///   from then on. It goes for TLS 1.2; one that OpenSSL rejects is logged, and the default list counts.
    /// - SslOptTimeout: with type 1 (and no other), value points at the handshake's time-out, a 32-bit number
    ///   of milliseconds; 0 or less for none, as at first. Clients (CSslStream) set theirs with type 0.
    /// - SslOptKeyPasswd: value is the NUL-terminated password of privkey.pem; copied.
    /// @return 0, also for an option that is unknown, after a log line; -1 without memory or without a value
    /// where one is needed.
    int SetOption(int option, int type, void* value);
    /// The same, but copies a list of ciphers or a password of a length.
    /// @param len bytes of the list (a NUL ends it early) or of the password; else without meaning.
    int SetOption(int option, int type, void* value, int len);
    /// @}

    /// @name Accepting
    /// @{

    /// Negotiates over an accepted stream.
    /// @param out without a connection; receives it. @param stream made by new; deleted in every case.
    /// @return 0, or -1.
    int Accept(CSslStream& out, CSockStream* stream);
    /// Waits for a connection and negotiates.
    /// @param remote receives the peer's endpoint as CSockAcceptor::Accept() fills it; may be null.
    /// @return 0, or -1: the connection, if there was one, is closed.
    int Accept(CSslStream& out, CSockAddr* remote = nullptr);
    /// As above, with a new stream that the caller deletes; null on failure.
    CSslStream* Accept(CSockAddr* remote = nullptr);
    /// @}

private:
    friend struct SSslAcceptorRecord;

    int option_valid();
    ssl_ctx_st* init_ssl_ctx();
    ssl_ctx_st* certificate_setup(ssl_ctx_st* ctx);
    void session_setup(ssl_ctx_st* ctx);
    ssl_ctx_st* use_pem_files(ssl_ctx_st* ctx, const char* function);
    void protocol_ban(ssl_ctx_st* ctx);
    void key_exchange_setup(ssl_ctx_st* ctx);
    ssl_st* init_ssl(int fd);
    int set_sock_timeout(int fd, int send_t, int recv_t);
    CSockStream* wait_for_client(CSockAddr* remote);
    SSslOutcome handshake(ssl_st* ssl, CSockStream& stream);

    SSslAcceptorRecord* m_internal;
};

}  // namespace Veltro::Ravelo
