// An echo server over TLS.
//
//   tls_echo_server cert=FILE key=FILE [chain=FILE] [port=N] [ca=FILE [crl=FILE]] [timeout=MS] [resume=FLAGS]
//
// cert, key   the server's certificate and key, PEM; chain: what stands between it and its root
// port        where to listen on 127.0.0.1; 0, the default, takes any free port
// ca, crl     clients must show a certificate of this authority, which this list does not revoke
// timeout     how long a handshake may take; 5000 ms by default
// resume      how sessions are resumed: 1 by id, 2 by ticket, 3 (the default) both, 0 not at all
//
// A handshake blocks its thread, so the reactor only accepts connections and hands them to a few threads that
// negotiate. Ctrl-C and SIGTERM end the server cleanly.
#include "server_program.h"
#include "tls_clients.h"
#include "tls_echo_connection.h"

int main(int argc, char** argv) {
    stop_on_signals();
    const CTlsOptions options(argc, argv);
    CLiveHandlers live;  // outlives the pool, whose threads use it
    const CPools pools(1, 0, false);
    CTlsClients<CTlsEchoConnection, CLiveHandlers> clients(options, live);
    if (!pools.AreThere() || !clients.Start()) {
        std::printf("cannot listen\n");
        return EXIT_FAILURE;
    }
    return serve(static_cast<unsigned short>(options.GetNumber("port", 0)), live, clients);
}
