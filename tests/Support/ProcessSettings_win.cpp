#include "Support/ProcessSettings.h"

namespace Veltro::TestSupport {

bool setDescriptorLimit(int) {
    return false;
}

void watchPipeSignal() {}

int pipeSignalCount() {
    return 0;
}

bool interruptMainThread(int, void (*)()) {
    return false;
}

int interruptionCount() {
    return 0;
}

}  // namespace Veltro::TestSupport
