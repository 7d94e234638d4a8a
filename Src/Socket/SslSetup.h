// What the reactor and the TLS classes need of OpenSSL before they use it.
#pragma once

namespace Veltro::Ravelo::SslSetup {

/// Sets OpenSSL up, once for the process; costs next to nothing afterwards. Each class whose objects hold
/// something of OpenSSL calls it first: left to itself OpenSSL would end its state at exit, possibly before
/// the last of those objects. @return 0, or -1 after a log line.
int initLibrary();

/// initLibrary(), and draws the DTLS ticket keys; both happen once for the process. A failure is logged: DTLS
/// servers then do without tickets.
///
/// Nothing gives OpenSSL's state back: it can be cleaned up only once in a process, and pools may be made
/// again after the last one has gone.
void start();

}  // namespace Veltro::Ravelo::SslSetup
