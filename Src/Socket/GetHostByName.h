// Host names to system addresses.
#pragma once

#include <Plinth/Mutex.h>

#include "Socket/SocketApi_system.h"

namespace Veltro::Ravelo {

/// The process's name resolver: made by its first user, freed by its last.
///
/// Every Acquire() is paired with a Release(). Any thread may call; a lookup blocks the calling thread and
/// holds no lock.
class CGetHostByName {
public:
    CGetHostByName(const CGetHostByName&) = delete;
    CGetHostByName& operator=(const CGetHostByName&) = delete;

    /// Counts a use. Null if there is no memory for the instance; then nothing is counted.
    static CGetHostByName* Acquire();
    static void Release();
    /// How many uses are counted at this moment.
    static int GetUseCount();

    /// Turns a host name or a numeric text into an address of a family.
    /// A name that is only known in IPv4 gives an IPv4-mapped IPv6 address. Texts that some systems take for
    /// numbers without their being an address literal ("1", "0x7f.1", "010.0.0.1") are no host names.
    /// @param family AF_INET or AF_INET6.
    /// @param out receives family and address; its port is left as it is.
    /// @param out_len bytes at out: at least 16 or 28, by family.
    /// @param timeout_ms not used.
    /// @return whether an address was found. A failure for AF_INET6 is logged; one for AF_INET is not.
    bool GetAddressInfo(const char* name, int family, sockaddr* out, int out_len, int timeout_ms);

private:
    CGetHostByName() = default;
    ~CGetHostByName() = default;

    bool get_ipv6(const char* name, sockaddr_in6* out);

    static Plinth::CMutex sm_mutex;  ///< guards the instance and its use count
    static CGetHostByName* sm_instance PLINTH_GUARDED_BY(sm_mutex);
    static int sm_use_count PLINTH_GUARDED_BY(sm_mutex);
};

}  // namespace Veltro::Ravelo
