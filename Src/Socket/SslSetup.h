// What the reactor needs of TLS and DTLS, which are not part of the library yet.
#pragma once

namespace Veltro::Ravelo::SslSetup {

/// Sets OpenSSL and the DTLS ticket keys up, once per process.
inline void start() {}
/// Gives back what start() took.
inline void stop() {}

}  // namespace Veltro::Ravelo::SslSetup
