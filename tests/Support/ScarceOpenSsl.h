// Lets OpenSSL's own allocations fail on purpose.
#pragma once

namespace Veltro::TestSupport {

/// While it lives, OpenSSL's allocations of the calling thread fail once a number of them has succeeded.
/// Needs the program to be linked with ScarceOpenSsl.cpp; one at a time on a thread.
class CScarceOpenSsl {
public:
    explicit CScarceOpenSsl(int allocations_left);
    ~CScarceOpenSsl();
    CScarceOpenSsl(const CScarceOpenSsl&) = delete;
    CScarceOpenSsl& operator=(const CScarceOpenSsl&) = delete;

    /// Whether an allocation has failed so far.
    bool hasFailed() const;
    /// How many have succeeded so far.
    int made() const;

private:
    const int m_allocations;
};

}  // namespace Veltro::TestSupport
