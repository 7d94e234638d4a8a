// The certificates that the build makes for tests, and files made of their pieces.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace Veltro::TestSupport {

/// The path of a file that tests/Certificates/make.sh has made.
inline std::string certificate(const std::string& name) {
    return std::string(RAVELO_CERTIFICATES) + "/" + name;
}

/// All bytes of a file.
inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
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
    /// In UTF-8, as the library takes paths.
    std::string path() const {
        const std::u8string text = m_path.u8string();
        return {text.begin(), text.end()};
    }

private:
    std::filesystem::path m_path;
};

}  // namespace Veltro::TestSupport
