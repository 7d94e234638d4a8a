#include <Plinth/Error.h>

#include <cerrno>

#include "LastErrorKeeper.h"

namespace Veltro::Plinth {

int getLastError() {
    return errno;
}

CLastErrorKeeper::CLastErrorKeeper() : m_error(errno) {}
CLastErrorKeeper::~CLastErrorKeeper() {
    errno = m_error;
}

}  // namespace Veltro::Plinth
