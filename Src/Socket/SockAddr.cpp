#include <Ravelo/SockAddr.h>
#include <Ravelo/SockAddrIPv4.h>

#include <algorithm>
#include <array>

namespace Veltro::Ravelo {

namespace {

struct SPortRange {
    unsigned short first;
    unsigned short last;
};

constexpr std::array<SPortRange, 10> RESERVED_PORTS{{{0, 1024},
                                                     {1900, 1900},
                                                     {3800, 3800},
                                                     {5000, 5000},
                                                     {5050, 5050},
                                                     {8090, 8121},
                                                     {9999, 9999},
                                                     {37776, 37778},
                                                     {37780, 37880},
                                                     {39999, 39999}}};

}  // namespace

CSockAddr::CSockAddr() : m_type(0) {}

CSockAddr::CSockAddr(unsigned int type) : m_type(type) {}

CSockAddr::CSockAddr(const CSockAddr& other) = default;

CSockAddr& CSockAddr::operator=(const CSockAddr& other) = default;

CSockAddr::~CSockAddr() = default;

unsigned int CSockAddr::GetType() const {
    return m_type;
}

bool CSockAddr::IsReserved() {
    if (m_type != SOCKADDR_TYPE_IPV4) return false;
    const unsigned short port = static_cast<const CSockAddrIPv4*>(this)->GetPort();
    return std::any_of(RESERVED_PORTS.begin(), RESERVED_PORTS.end(),
                       [port](const SPortRange& range) { return port >= range.first && port <= range.last; });
}

}  // namespace Veltro::Ravelo
