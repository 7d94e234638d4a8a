#include <Plinth/Time.h>

#include <chrono>

namespace Veltro::Plinth {

namespace {
template <typename Unit>
std::uint64_t now() {
    const auto since_start = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<Unit>(since_start).count());
}
}  // namespace

std::uint64_t CTime::getCurrentMicroSecond() {
    return now<std::chrono::microseconds>();
}
std::uint64_t CTime::getCurrentMilliSecond() {
    return now<std::chrono::milliseconds>();
}

}  // namespace Veltro::Plinth
