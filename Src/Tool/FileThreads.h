// What the reactor needs of the file threads. Asynchronous files are not part of the library yet, so no file
// thread runs and messages for one wait.
#pragma once

namespace Veltro::Ravelo::FileThreads {

/// Starts the threads, twice as many as there are processors; 0 or -1.
inline int start(unsigned /*processors*/) {
    return 0;
}
inline void stop() {}
/// Asks a running file thread to deliver one waiting I/O message; nothing when none runs.
inline void deliverIoMessage() {}

}  // namespace Veltro::Ravelo::FileThreads
