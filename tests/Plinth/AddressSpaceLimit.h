#pragma once

namespace Veltro::TestSupport {

/// While it lives, the process may take 512 MiB of address space beyond what it has. Bodies in
/// AddressSpaceLimit_linux.cpp and AddressSpaceLimit_win.cpp.
class CAddressSpaceLimit {
public:
    CAddressSpaceLimit();
    ~CAddressSpaceLimit();
    CAddressSpaceLimit(const CAddressSpaceLimit&) = delete;
    CAddressSpaceLimit& operator=(const CAddressSpaceLimit&) = delete;

    /// Whether the system enforces it; prints so if not.
    bool enforced() const;

private:
    bool m_enforced = false;
    unsigned long long m_former_bytes = 0;
};

}  // namespace Veltro::TestSupport
