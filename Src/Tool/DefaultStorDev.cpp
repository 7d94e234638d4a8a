#include "Tool/DefaultStorDev.h"

#include <Plinth/File.h>

#include <new>
#include <string>

#include "Log.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

// Unnamed, so that a DLL does not export its type information.
class CDefaultStorDev : public CNStorDev_IF {
public:
    CDefaultStorDev() = default;
    CDefaultStorDev(const CDefaultStorDev&) = delete;
    CDefaultStorDev& operator=(const CDefaultStorDev&) = delete;

    int Open(const char* path, const char* mode) override;
    void Close() override;
    int Write(const char* buf, unsigned int len) override;
    int Read(char* buf, unsigned int len) override;
    int Seek(std::int64_t offset, int whence) override;
    int Stat(NFile_Info* info) override;

private:
    ~CDefaultStorDev() override = default;

    Plinth::CFileStream m_stream;
    std::string m_path;  // whole, so that a long one is found again
};

int CDefaultStorDev::Open(const char* path, const char* mode) {
    try {
        m_path = path != nullptr ? path : "";
    } catch (...) {
        return -1;  // memory is short
    }
    if (m_stream.open(path, mode) == 0) return 0;
    const int error = SocketApi::lastError();
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "%s : open file failed! path:%s, mode:%s, error:%d, %s\n",
               "Veltro::Ravelo::CDefaultStorDev::Open", path != nullptr ? path : "",
               mode != nullptr ? mode : "", error, SocketApi::errorText(error).data());
    return -1;
}

void CDefaultStorDev::Close() {
    delete this;
}

int CDefaultStorDev::Write(const char* buf, unsigned int len) {
    return m_stream.write(buf, len);
}

int CDefaultStorDev::Read(char* buf, unsigned int len) {
    return m_stream.read(buf, len);
}

int CDefaultStorDev::Seek(std::int64_t offset, int whence) {
    if (whence != SEEK_SET && whence != SEEK_CUR) return -1;
    return m_stream.seek(offset, whence);
}

int CDefaultStorDev::Stat(NFile_Info* info) {
    if (info == nullptr) return -1;
    Plinth::SFileStatus status;
    if (Plinth::CFile::status(m_path.c_str(), &status) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "get fstat failed, error:%d, %s\n", error,
                   SocketApi::errorText(error).data());
        return -1;
    }
    *info = NFile_Info{};
    info->create_time = status.change_time;
    info->access_time = status.access_time;
    info->modify_time = status.modify_time;
    info->size = status.size;
    m_path.copy(info->name, sizeof info->name - 1);
    return 0;
}

}  // namespace

CNStorDev_IF* makeDefaultStorDev() {
    return new (std::nothrow) CDefaultStorDev;
}

}  // namespace Veltro::Ravelo
