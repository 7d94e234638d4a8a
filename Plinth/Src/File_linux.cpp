#include <Plinth/File.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "FileSystem.h"

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

int CFile::status(const char* path, SFileStatus* status) {
    if (path == nullptr || status == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct stat found {};
    if (::stat(path, &found) != 0) return -1;
    status->change_time = static_cast<std::uint64_t>(found.st_ctim.tv_sec);
    status->access_time = static_cast<std::uint64_t>(found.st_atim.tv_sec);
    status->modify_time = static_cast<std::uint64_t>(found.st_mtim.tv_sec);
    status->size = static_cast<std::uint64_t>(found.st_size);
    status->is_folder = S_ISDIR(found.st_mode);
    return 0;
}

std::FILE* openFile(const char* path, const char* mode) {
    if (path == nullptr || mode == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    // "e": child processes do not inherit it.
    const std::string wanted = std::string(1, mode[0]) + "e" + (mode[0] != '\0' ? mode + 1 : "");
    std::FILE* stream = std::fopen(path, wanted.c_str());
    struct stat found {};
    // The system opens folders for reading and then refuses to read.
    if (stream != nullptr && ::fstat(::fileno(stream), &found) == 0 && S_ISDIR(found.st_mode)) {
        std::fclose(stream);
        stream = nullptr;
        errno = EISDIR;
    }
    return stream;
}

int seekFile(std::FILE* stream, std::int64_t offset, int whence) {
    return ::fseeko(stream, offset, whence);
}

void setWrongUse() {
    errno = EBADF;
}

}  // namespace Veltro::Plinth
