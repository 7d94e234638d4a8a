// Files that tests make and look into.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace Veltro::TestSupport {

/// All bytes of a file. @param path in UTF-8.
inline std::string contentOf(const std::string& path) {
    std::ifstream file(std::filesystem::path(std::u8string(path.begin(), path.end())), std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A file with the given bytes, removed at the end.
class CTemporaryFile {
public:
    explicit CTemporaryFile(const std::string& bytes = {}, const std::string& name = "ravelo_test_")
        : m_path(std::filesystem::temp_directory_path() /
                 std::filesystem::path(
                     std::u8string(name.begin(), name.end()) +
                     std::filesystem::path(std::to_string(std::random_device{}())).u8string())) {
        write(bytes);
    }
    ~CTemporaryFile() {
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    void write(const std::string& bytes) {
        std::ofstream file(m_path, std::ios::binary | std::ios::trunc);
        file << bytes;
        EXPECT_TRUE(file.good()) << m_path;
    }
    const std::filesystem::path& place() const { return m_path; }
    /// In UTF-8, as the library takes paths.
    std::string path() const {
        const std::u8string text = m_path.u8string();
        return {text.begin(), text.end()};
    }

private:
    std::filesystem::path m_path;
};

}  // namespace Veltro::TestSupport
