#include <iostream>

#include "AddressSpaceLimit.h"

namespace Veltro::TestSupport {

CAddressSpaceLimit::CAddressSpaceLimit() = default;
CAddressSpaceLimit::~CAddressSpaceLimit() = default;

bool CAddressSpaceLimit::enforced() const {
    std::cout << "not run: Windows has no limit of a process's address space\n";
    return m_enforced;
}

}  // namespace Veltro::TestSupport
