#pragma once

#include <Ravelo/SessionCache.h>
#include <Ravelo/Sock.h>
#include <Ravelo/SslOption.h>

/// OpenSSL's SSL and SSL_CTX.
struct ssl_st;
struct ssl_ctx_st;

namespace Veltro::Ravelo {

class CSockStream;
class CSslX509;
struct SSslStreamRecord;

/// A TLS connection over TCP, with the calls of CSockStream, for use with the reactor (single calls that do
/// not wait) or without (Send_n, Recv_n).
///
/// A client gets one by Connect(), a server from CSslAcceptor; either way the socket is non-blocking from
/// then on, and small sends leave at once. Single calls return a positive count, 0 for "try again later", or
/// -1 after log lines; none of them raises a signal. One object is used by one thread at a time.
///
/// The reactor reports what arrives at the socket, and one arrival may bring more than one Recv() takes:
/// whoever hears of input calls Recv() until it returns 0 or -1, for bytes that wait decrypted inside the
/// object are not reported again.
///
/// Destroying the object ends the connection with a close notification. Close() ends it without one, which
/// the peer takes for a failure.
class RAVELO_API CSslStream : public CSock {
public:
    CSslStream();
    /// Sends the close notification, if the socket takes it at once, and closes the socket.
    ~CSslStream() override;
    CSslStream(const CSslStream&) = delete;
    CSslStream& operator=(const CSslStream&) = delete;

    /// @name Options
    /// Read by Connect(): set them before. A connection that an acceptor handed over has none.
    /// @{

    /// Where the own certificate chain (cacert.pem) and its key (privkey.pem) are, unless SslOptCert brings
    /// an own certificate. A folder that lacks one of them counts as none, with a log line.
    /// @param dir copied; with the file's name at most 127 bytes count; UTF-8.
    /// @return 0; -1 without memory, or if it is null: then there is no folder.
    int SetPemPath(const char* dir);
    /// Sets an option:
    /// - SslOptSession: type is SslSession flags; with SslSessionByNumber, value points at the 32-bit number
    ///   of the session to resume (0 or null: none yet).
    /// - SslOptCert: type is SslCert flags; value is a CSslX509 made by new, owned by this object from then
    ///   on. The former one is deleted.
    /// - SslOptCipherList: with type 1, value is the list, a text made by new char[] and owned by this object
    ///   from then on. It goes for TLS 1.2; one that OpenSSL rejects is logged, and the default list counts.
    /// - SslOptTimeout: with type 0 (and no other), value points at the handshake's time-out, a 32-bit number
    ///   of milliseconds; 0 or less for none. 5000 at first.
    /// - SslOptKeyPasswd: value is the NUL-terminated password of privkey.pem; copied.
    /// - SslOptServerName: value is the NUL-terminated name that is sent to the server; copied.
    /// @return 0, also for an option that is unknown, after a log line; -1 without memory or without a value
    /// where one is needed.
    int SetOption(int option, int type, void* value);
    /// The same, but copies a list of ciphers or a password of a length.
    /// @param len bytes of the list (a NUL ends it early) or of the password; else without meaning.
    int SetOption(int option, int type, void* value, int len);
    /// Tells the session option: type, and at value, if SslSessionByNumber is set, the 32-bit number of the
    /// session that the last successful Connect() has saved or resumed.
    /// @param option SslOptSession; another one is logged. @param len left alone. @return 0
    int GetOption(int option, int& type, void* value, int& len);
    /// @}

    /// @name Connecting
    /// They block the calling thread until the handshake is over or its time-out has passed. Only on an
    /// object that has no connection; one whose attempt has failed may try again.
    /// @{

    /// Connects to an endpoint and negotiates.
    /// @param remote, local as of CSockStream::Connect(). @return 0, or -1.
    int Connect(const CSockAddr& remote, CSockAddr* local = nullptr);
    /// Negotiates over a connected stream.
    /// @param stream made by new. On success its socket becomes this object's and it is deleted; on failure
    /// it stays the caller's, in blocking mode. @return 0, or -1.
    int Connect(CSockStream* stream);
    /// Gives a certificate object the peer's certificate as its own one.
    /// @return 0; -1 without a connection or if cert is null; -2 the peer has shown none.
    int GetPeerCert(CSslX509* cert);
    /// @}

    /// @name Single calls
    /// @{

    /// Sends once.
    /// @param buf not null; only read. @param len bytes, above 0.
    /// @return bytes sent, possibly fewer than len; 0 try again, with the same bytes (more may follow them,
    /// and they may lie elsewhere); -1 failed.
    int Send(const char* buf, unsigned int len);
    /// Sends the elements of a list, one after the other, up to the first that is not taken whole.
    /// @param vec not null; it and its data are only read. @param count elements, above 0.
    /// @return bytes sent; 0 try again; -1 if an element failed, whatever was sent before.
    int WriteV(const iovec* vec, int count);
    /// Receives at most one record's rest.
    /// @param buf not null. @param len bytes, above 0.
    /// @return bytes received; 0 try again when the reactor reports input; -1 failed or the peer has closed.
    int Recv(char* buf, unsigned int len);
    /// How many bytes the next Recv() can take; reads a record if there is none yet.
    /// @return the count, which may be 0; -1 failed or the peer has closed.
    int Peek();
    /// @}

    /// @name Waiting calls
    /// They block the calling thread: not for the reactor's callbacks.
    /// @{

    /// Sends all of a buffer.
    /// @param timeout microseconds in all; 0 sends once without waiting, negative counts as no time left.
    /// @return bytes sent, fewer than len after a time-out; -1 failed, whatever was sent before.
    int Send_n(const char* buf, unsigned int len, int timeout);
    /// Waits for data and receives once; data that wait inside the object are taken without waiting.
    /// @param timeout microseconds; 0 receives nothing, negative counts as no time left.
    /// @return bytes received; 0 after a time-out; -1 failed or the peer has closed.
    int Recv_n(char* buf, unsigned int len, int timeout);
    /// @}

    /// The sessions of all clients of the process: of those with SslSessionId, and of the others.
    static CSessionCache s_session_cache_id;
    static CSessionCache s_session_cache_ticket;

private:
    friend class CSslAcceptor;
    friend struct SSslStreamRecord;

    /// Take over a negotiated connection, and the stream that carries it.
    int SetSsl(ssl_st* ssl);
    int SetStream(CSockStream* stream);

    ssl_ctx_st* init_ssl_ctx();
    ssl_ctx_st* certificate_setup(ssl_ctx_st* ctx);
    void session_setup(ssl_ctx_st* ctx);
    ssl_st* init_ssl(int fd);
    int set_sock_timeout(int fd, int send_t, int recv_t);
    int set_session(ssl_st* ssl, CSockStream* stream);
    int save_session(ssl_st* ssl, CSockStream* stream);
    void send_server_name();
    int handshake(CSockStream* stream);

    SSslStreamRecord* m_internal;
};

}  // namespace Veltro::Ravelo
