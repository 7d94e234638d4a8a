// What the reactor needs of the remote command server, which is switched off in this build.
#pragma once

namespace Veltro::Ravelo::R3Control {

/// Starts the server; -1, since there is none to start.
inline int start() {
    return -1;
}
/// Ends the server; 0, also when none runs.
inline int stop() {
    return 0;
}

}  // namespace Veltro::Ravelo::R3Control
