#include "Socket/ReadWatch.h"

namespace Veltro::Ravelo {

namespace {

struct SWatch {
    int fd = -1;
    CReadWatch::ELeft left = CReadWatch::ELeft::Unknown;
};

thread_local SWatch t_watch;

}  // namespace

void CReadWatch::begin(int fd) {
    t_watch = SWatch{fd, ELeft::Unknown};
}

void CReadWatch::note(int fd, ELeft left) {
    SWatch& watch = t_watch;
    if (watch.fd == fd) watch.left = left;
}

CReadWatch::ELeft CReadWatch::left() {
    return t_watch.left;
}

}  // namespace Veltro::Ravelo
