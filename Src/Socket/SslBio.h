// How OpenSSL reads and writes a stream socket: through the library's own calls, which raise no signal.
#pragma once

#include <cstdint>

#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo::SslBio {

/// A source and sink over a connected stream socket, which it does not close. Null without memory.
BIO* create(int fd);

/// Prepares for a call of OpenSSL's: what follows goes to this socket (-1: to none, which fails), and no
/// socket error has happened yet.
void prepare(BIO* bio, int fd);
/// The socket error of the last read or write since prepare(); 0 if there was none or it succeeded.
int lastError(const BIO* bio);

/// From now on reads and writes of a blocking socket fail once an amount of time has passed, whatever the
/// peer trickles meanwhile. 0 ends that.
void setTimeout(BIO* bio, std::int64_t timeout_ms);

}  // namespace Veltro::Ravelo::SslBio
