// Threads that print nothing for a while.
#pragma once

namespace Veltro::Ravelo {

/// While it lives, what its thread prints to the remote operator is dropped. May be nested.
class CR3Quiet {
public:
    CR3Quiet();
    ~CR3Quiet();
    CR3Quiet(const CR3Quiet&) = delete;
    CR3Quiet& operator=(const CR3Quiet&) = delete;

    static bool isOn();
};

}  // namespace Veltro::Ravelo
