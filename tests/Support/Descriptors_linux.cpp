#include <fcntl.h>
#include <unistd.h>

#include <ctime>

#include "Support/Descriptors.h"

namespace Veltro::TestSupport {

void moveTo(Ravelo::CSockStream& from, int fd, Ravelo::CSockStream& target) {
    ::dup3(from.GetHandle(), fd, O_CLOEXEC);
    from.Close();
    target.Attach(fd);
}

int duplicateDescriptor(int fd) {
    return ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

std::int64_t processorTimeUs() {
    return static_cast<std::int64_t>(std::clock()) * 1'000'000 / CLOCKS_PER_SEC;
}

}  // namespace Veltro::TestSupport
