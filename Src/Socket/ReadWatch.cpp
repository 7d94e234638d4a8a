#include "Socket/ReadWatch.h"

namespace Veltro::Ravelo {

CReadWatch& CReadWatch::ofThread() {
    thread_local CReadWatch t_watch;
    return t_watch;
}

void CReadWatch::note(int fd, ELeft left) {
    CReadWatch& watch = ofThread();
    if (watch.m_fd == fd) watch.m_left = left;
}

}  // namespace Veltro::Ravelo
