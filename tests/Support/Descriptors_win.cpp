#include "Support/Descriptors.h"

namespace Veltro::TestSupport {

void moveTo(Ravelo::CSockStream& from, int, Ravelo::CSockStream& target) {
    target.Attach(from.Detach());
}

int duplicateDescriptor(int) {
    return -1;
}

std::int64_t processorTimeUs() {
    return 0;
}

}  // namespace Veltro::TestSupport
