// What the reactor and the TLS classes need of OpenSSL before they use it.
#pragma once

namespace Veltro::Ravelo::SslSetup {

/// Lets OpenSSL's state last to the end of the process: left to itself OpenSSL would end it at exit, possibly
/// before the last object that holds something of it. The constructor of each class whose objects may be
/// statics calls this, so that it comes before anything else sets OpenSSL up; it reads no files and may run
/// while the library is being loaded. @return 0 or -1.
int keepPastExit();

/// Sets OpenSSL up and draws the DTLS ticket keys; both happen once for the process. A failure is logged:
/// without keys DTLS servers do without tickets.
///
/// Nothing gives OpenSSL's state back: it can be cleaned up only once in a process, and pools may be made
/// again after the last one has gone.
void start();

}  // namespace Veltro::Ravelo::SslSetup
