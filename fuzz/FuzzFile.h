// An input as a file, for what reads files.
#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "FuzzBytes.h"

namespace Veltro::Fuzz {

/// One file for the whole run, written anew for each input and removed at the end.
class CFuzzFile {
public:
    CFuzzFile() {
        const std::filesystem::path memory = "/dev/shm";
        const auto folder = std::filesystem::exists(memory) ? memory : std::filesystem::temp_directory_path();
        m_path = (folder / ("ravelo_fuzz_" + std::to_string(std::random_device{}()))).string();
    }
    ~CFuzzFile() {
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }
    CFuzzFile(const CFuzzFile&) = delete;
    CFuzzFile& operator=(const CFuzzFile&) = delete;

    /// The path of the file, which now holds the bytes.
    const char* with(const std::string& bytes) {
        std::ofstream file(m_path, std::ios::binary | std::ios::trunc);
        file << bytes;
        require(file.good());
        return m_path.c_str();
    }

private:
    std::string m_path;
};

}  // namespace Veltro::Fuzz
