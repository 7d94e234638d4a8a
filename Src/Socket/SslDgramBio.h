// How OpenSSL reads and writes a datagram socket. Not through OpenSSL's own BIO: an empty datagram of anybody
// ends its handshakes, and without a connection it answers whoever sent last.
#pragma once

#include <cstdint>

#include "Socket/OpenSslTypes.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo::SslDgramBio {

/// A source and sink over a datagram socket, which it does not close, to and from one peer. Null without
/// memory.
/// @param family of the socket. @param peer the peer's address; of length 0: the first sender of a
/// ClientHello, to whom the socket is connected then.
BIO* create(int fd, int family, const sockaddr_in6& peer, int peer_length);

/// From now on a read waits until OpenSSL's timer runs out, and what is too long for the path counts as lost
/// on the way: so that the one call of a handshake repeats what must be repeated. Null ends that.
/// @param silence_us how long a known peer may be silent while no timer runs, as when OpenSSL had no memory
/// to start it; then the read fails with "timed out".
void followTimer(BIO* bio, SSL* ssl, std::int64_t silence_us);

/// Prepares for a call of OpenSSL's: what follows goes through this socket (-1: through none, which fails),
/// and no socket error has happened yet.
void prepare(BIO* bio, int fd);
/// The socket error of the last read or write since prepare(); 0 if there was none or it succeeded.
int lastError(const BIO* bio);

}  // namespace Veltro::Ravelo::SslDgramBio
