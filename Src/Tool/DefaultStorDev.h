#pragma once

#include <Plinth/File.h>
#include <Ravelo/NFile.h>

#include <string>

namespace Veltro::Ravelo {

/// The storage of files that are opened without a device of the application's own: a file of the system.
/// Made with new; Close() ends it. One thread at a time.
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

}  // namespace Veltro::Ravelo
