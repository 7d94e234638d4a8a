#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "AddressSpaceLimit.h"

namespace Veltro::TestSupport {

CAddressSpaceLimit::CAddressSpaceLimit() {
    unsigned long long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit{};
    if (pages == 0 || getrlimit(RLIMIT_AS, &limit) != 0) return;
    m_former_bytes = limit.rlim_cur;
    limit.rlim_cur = pages * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE)) + (512ULL << 20);
    m_enforced = setrlimit(RLIMIT_AS, &limit) == 0;
}

CAddressSpaceLimit::~CAddressSpaceLimit() {
    rlimit limit{};
    if (!m_enforced || getrlimit(RLIMIT_AS, &limit) != 0) return;
    limit.rlim_cur = m_former_bytes;
    setrlimit(RLIMIT_AS, &limit);
}

bool CAddressSpaceLimit::enforced() const {
    if (!m_enforced) std::cout << "not run: the address space could not be limited\n";
    return m_enforced;
}

}  // namespace Veltro::TestSupport
