#include <Plinth/File.h>

#include <unistd.h>

#include <cerrno>

namespace Veltro::Plinth {

int CFile::access(const char* path, int mode) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int wanted = F_OK;
    if (mode & FILE_ACCESS_READ) wanted |= R_OK;
    if (mode & FILE_ACCESS_WRITE) wanted |= W_OK;
    return ::access(path, wanted);
}

}  // namespace Veltro::Plinth
