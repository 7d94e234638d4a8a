#pragma once

#include <Ravelo/SessionCache.h>
#include <Ravelo/Sock.h>
#include <Ravelo/SslOption.h>

/// OpenSSL's SSL and SSL_CTX.
struct ssl_st;
struct ssl_ctx_st;

namespace Veltro::Ravelo {

class CSslX509;
struct SSslDgramRecord;

/// A DTLS connection over one UDP socket, IPv4 or IPv6: a client connects to one server, a server waits for
/// one client. Its type is SOCK_TYPE_DGRAM.
///
/// Handshakes block the calling thread. They end at the latest when the peer has been silent for about eight
/// minutes: what was sent is repeated after 1, 2, 4 s and so on up to 60 s, twelve times in all. A server
/// that has heard of no client yet waits without end. On Linux a closed port at the other end ends a
/// handshake at once. Afterwards the socket is non-blocking: register it for Read, and call Recv() from
/// handle_input(). Datagrams of other senders and garbage are passed over.
///
/// What is sent may be lost, doubled or come out of order, as UDP has it; what arrives is genuine. Datagrams
/// of the handshake may get lost, too, and then the peer repeats his last ones: the end that has finished
/// answers them in Recv(), so it must go on calling that.
///
/// Destroying the object sends the close notification, which the peer's Recv() reports by -1; Close() ends
/// the connection without one. One object is used by one thread at a time.
class RAVELO_API CSslDgram : public CSock {
public:
    CSslDgram();
    ~CSslDgram() override;
    CSslDgram(const CSslDgram&) = delete;
    CSslDgram& operator=(const CSslDgram&) = delete;

    /// Draws the keys that seal the session tickets of all DTLS servers of the process, once. Creating the
    /// first thread pool does it; programs without one call it before their first server. Any thread.
    /// @return 0, or -1 after a log line.
    static int Init();

    /// Sets an option; before the handshake, which reads them:
    /// - SslOptSession: type is SslSessionId and SslSessionTicket flags; value points at a 32-bit number.
    ///   With its bit 1 a client keeps sessions by the server's address alone instead of by address and port.
    /// - SslOptCert: type is SslCert flags; value is a CSslX509 made by new, owned by this object from then
    ///   on. The former one is deleted. A server needs one. SslCertVerifyPeer refuses peers without a
    ///   certificate, too.
    /// - SslOptCipherList: with type 1, value is the list, a NUL-terminated text that stays the caller's and
    ///   must last as long as this object. One that OpenSSL rejects is logged, and OpenSSL's default counts.
    /// @return 0, also for an option that is unknown, after a log line; -1 without memory.
    int SetOption(int option, int type, void* value);

    /// @name Handshakes
    /// Each returns 0, or -1 after log lines. What has failed can be tried again, from the start.
    /// @{

    /// Creates and binds the socket of a server, for AcceptX().
    /// @param local, reuse as of CSockDgram::Open(). With reuse, servers may take clients of one port in
    /// turn on Linux: each socket hears its own client only from his first datagram on.
    /// @return -1 also if there is a socket already, which stays as it is.
    int Open(const CSockAddr* local, bool reuse);
    /// Waits for a client on the socket that Open() made and negotiates. On an object that has a connection
    /// it ends that one and waits for the next; who came in between was refused.
    /// @param remote the only client that is heard; null is the first one who asks.
    /// @return on failure the socket is closed; Open() comes first again.
    int AcceptX(const CSockAddr* remote);
    /// Open() and AcceptX() in one.
    int Accept(const CSockAddr* local, bool reuse, const CSockAddr* remote);
    /// Connects to a server and negotiates, or resumes an earlier session with it.
    /// @param remote an IPv4 or IPv6 address, or a storage of either. @param local where to bind; null leaves
    /// it to the system.
    /// @return on failure the object has no socket; also if it had one, even a connected one, before.
    int Connect(const CSockAddr* remote, const CSockAddr* local);
    /// @}

    /// @name Single calls
    /// @{

    /// Sends one record as one datagram.
    /// @param buf not null; only read. @param len bytes, 1 to 16384; -1 for more. A record that is longer
    /// than the path carries fails at a client with the system's "message too long" (1200 bytes fit
    /// everywhere); a server's travels in pieces.
    /// @return len; 0 try again later; -1 failed.
    int Send(const char* buf, unsigned int len);
    /// Receives at most one record. What it has over waits in the object for the next call, and the reactor
    /// reports input again.
    /// @param buf not null. @param len bytes, above 0; 16384 hold every record.
    /// @return bytes received; 0 try again when the reactor reports input; -1 failed or the peer has closed.
    int Recv(char* buf, unsigned int len);
    /// @}

    /// The sessions of all clients of the process: of those with SslSessionId, and of the others.
    static CSessionCache s_cli_sess_cache_id;
    static CSessionCache s_cli_sess_cache_ticket;

private:
    friend struct SSslDgramRecord;

    int open(const CSockAddr* local, bool reuse);
    int option_valid();
    ssl_ctx_st* init_ssl_ctx(int is_server);
    ssl_ctx_st* certificate_setup(ssl_ctx_st* ctx);
    int session_setup(ssl_ctx_st* ctx, int is_server);
    int accept(const CSockAddr* remote);
    void leave_client();
    int init_accept_ssl(const CSockAddr* remote);
    int init_connect_ssl(const CSockAddr& remote);
    int set_session(ssl_st* ssl, char* ip, int port);
    int save_session(ssl_st* ssl, char* ip, int port);
    int connect(const CSockAddr& remote, const CSockAddr* local, char* ip);
    bool choose_ciphers();
    int finish_handshake();
    void log_state();
    void end_connection();
    void tear_down();

    SSslDgramRecord* m_internal;
};

}  // namespace Veltro::Ravelo
