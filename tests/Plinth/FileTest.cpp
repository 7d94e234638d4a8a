#include <Plinth/Error.h>
#include <Plinth/File.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace Veltro::Plinth {
namespace {

namespace fs = std::filesystem;

std::string utf8(const fs::path& path) {
    const std::u8string text = path.u8string();
    return {reinterpret_cast<const char*>(text.data()), text.size()};
}

/// A file under a folder of the test's own, which goes with it.
class CTemporaryFile {
public:
    explicit CTemporaryFile(const fs::path& name) {
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        m_folder = fs::temp_directory_path() / (std::string("plinth_file_") + test->name());
        fs::create_directories(m_folder);
        m_path = m_folder / name;
        std::ofstream(m_path) << "content";
    }
    ~CTemporaryFile() {
        std::error_code ignored;
        fs::permissions(m_path, fs::perms::owner_all, ignored);
        fs::remove_all(m_folder, ignored);
    }
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    const fs::path& path() const { return m_path; }
    const fs::path& folder() const { return m_folder; }

private:
    fs::path m_folder;
    fs::path m_path;
};

TEST(File, AFileOfOnesOwnAllowsEverything) {
    const CTemporaryFile file("plain.txt");
    const std::string path = utf8(file.path());
    EXPECT_EQ(CFile::access(path.c_str(), FILE_ACCESS_EXISTS), 0);
    EXPECT_EQ(CFile::access(path.c_str(), FILE_ACCESS_READ), 0);
    EXPECT_EQ(CFile::access(path.c_str(), FILE_ACCESS_WRITE), 0);
    EXPECT_EQ(CFile::access(path.c_str(), FILE_ACCESS_READ | FILE_ACCESS_WRITE), 0);
}

TEST(File, AFolderIsThereToo) {
    const CTemporaryFile file("plain.txt");
    EXPECT_EQ(CFile::access(utf8(file.folder()).c_str(), FILE_ACCESS_EXISTS), 0);
    EXPECT_EQ(CFile::access(utf8(file.folder()).c_str(), FILE_ACCESS_WRITE), 0);
}

TEST(File, AMissingFileGivesMinusOneAndTheReason) {
    const CTemporaryFile file("plain.txt");
    const std::string path = utf8(file.folder() / "missing.txt");
    const int result = CFile::access(path.c_str(), FILE_ACCESS_EXISTS);
    EXPECT_EQ(getLastError(), 2);
    EXPECT_EQ(result, -1);
}

TEST(File, NoPathAtAllGivesMinusOneAndAReason) {
    EXPECT_EQ(CFile::access(nullptr, FILE_ACCESS_EXISTS), -1);
    EXPECT_NE(getLastError(), 0);
    EXPECT_EQ(CFile::access("", FILE_ACCESS_EXISTS), -1);
    EXPECT_NE(getLastError(), 0);
}

TEST(File, AWriteProtectedFileCanOnlyBeRead) {
    const CTemporaryFile file("protected.txt");
    const std::string path = utf8(file.path());
    fs::permissions(file.path(), fs::perms::owner_read, fs::perm_options::replace);
    EXPECT_EQ(CFile::access(path.c_str(), FILE_ACCESS_READ), 0);
    if (std::ofstream(file.path(), std::ios::app).is_open()) {
        std::cout << "the rest is not run: this user may write to protected files\n";
        return;
    }
    EXPECT_EQ(CFile::access(path.c_str(), FILE_ACCESS_WRITE), -1);
    EXPECT_NE(getLastError(), 0);
}

TEST(File, PathsAreUtf8OnEveryPlatform) {
    // Latin, Cyrillic, Han and one character beyond 16 bits.
    const fs::path name(u8"\u00e4\u0416\u4e2d\U0001F600.txt");
    const CTemporaryFile file(name);
    if (!fs::exists(file.path())) {
        std::cout << "not run: the file system takes no such name\n";
        return;
    }
    EXPECT_EQ(CFile::access(utf8(file.path()).c_str(), FILE_ACCESS_EXISTS), 0);
    EXPECT_EQ(CFile::access(utf8(file.folder() / u8"\u00e4\u0416.txt").c_str(), FILE_ACCESS_EXISTS), -1);
}

TEST(File, APathThatIsNotUtf8IsNotThere) {
    EXPECT_EQ(CFile::access("no\xff\xfesuch", FILE_ACCESS_EXISTS), -1);
    EXPECT_NE(getLastError(), 0);
}

TEST(File, StatusTellsSizeKindAndTimes) {
    const CTemporaryFile file("plain.txt");
    SFileStatus status;
    EXPECT_EQ(CFile::status(utf8(file.path()).c_str(), &status), 0);
    EXPECT_EQ(status.size, 7U);
    EXPECT_FALSE(status.is_folder);
    EXPECT_GT(status.modify_time, 1'600'000'000U);
    EXPECT_GT(status.access_time, 1'600'000'000U);
    EXPECT_GT(status.change_time, 1'600'000'000U);
    EXPECT_EQ(CFile::status(utf8(file.folder()).c_str(), &status), 0);
    EXPECT_TRUE(status.is_folder);
}

TEST(File, StatusOfWhatIsNotThereGivesMinusOneAndTheReason) {
    const CTemporaryFile file("plain.txt");
    SFileStatus status;
    status.size = 5;
    EXPECT_EQ(CFile::status(utf8(file.folder() / "missing.txt").c_str(), &status), -1);
    EXPECT_EQ(getLastError(), 2);
    EXPECT_EQ(CFile::status(nullptr, &status), -1);
    EXPECT_EQ(CFile::status(utf8(file.path()).c_str(), nullptr), -1);
    EXPECT_EQ(status.size, 5U);
}

TEST(FileStream, MovesBytesAtAPosition) {
    const CTemporaryFile file("stream.bin");
    CFileStream stream;
    EXPECT_FALSE(stream.isOpen());
    EXPECT_EQ(stream.open(utf8(file.path()).c_str(), "r+"), 0);
    EXPECT_TRUE(stream.isOpen());
    char text[20] = {};
    EXPECT_EQ(stream.read(text, 3), 3);
    EXPECT_STREQ(text, "con");
    EXPECT_EQ(stream.write("TE", 2), 2);
    EXPECT_EQ(stream.read(text, 20), 2);
    EXPECT_EQ(stream.read(text, 20), 0);
    EXPECT_EQ(stream.seek(0, SEEK_SET), 0);
    EXPECT_EQ(stream.read(text, 20), 7);
    EXPECT_STREQ(text, "conTEnt");
    EXPECT_EQ(stream.seek(-1, SEEK_SET), -1);
}

TEST(FileStream, OpensAnotherFileInPlaceOfTheFirst) {
    const CTemporaryFile file("stream.bin");
    CFileStream stream;
    EXPECT_EQ(stream.open(utf8(file.path()).c_str(), "r"), 0);
    EXPECT_EQ(stream.open(utf8(file.folder() / "missing").c_str(), "r"), -1);
    EXPECT_FALSE(stream.isOpen());
    EXPECT_EQ(stream.open(utf8(file.folder() / "new").c_str(), "wb"), 0);
    EXPECT_EQ(stream.write("x", 1), 1);
    stream.close();
    stream.close();
    EXPECT_FALSE(stream.isOpen());
}

TEST(FileStream, RefusesFoldersAndWhatIsNoPath) {
    const CTemporaryFile file("stream.bin");
    CFileStream stream;
    EXPECT_EQ(stream.open(utf8(file.folder()).c_str(), "r"), -1);
    EXPECT_NE(getLastError(), 0);
    EXPECT_EQ(stream.open(nullptr, "r"), -1);
    EXPECT_NE(getLastError(), 0);
    EXPECT_EQ(stream.open("", "r"), -1);
    EXPECT_EQ(stream.open(utf8(file.path()).c_str(), nullptr), -1);
    EXPECT_EQ(stream.open(utf8(file.path()).c_str(), ""), -1);
    EXPECT_FALSE(stream.isOpen());
}

TEST(FileStream, DoesOnlyWhatItWasOpenedFor) {
    const CTemporaryFile file("stream.bin");
    const std::string path = utf8(file.path());
    char byte = 'x';
    for (const char* mode : {"w", "a", "wb"}) {
        CFileStream stream;
        EXPECT_EQ(stream.open(path.c_str(), mode), 0);
        EXPECT_EQ(stream.read(&byte, 1), -1) << mode;
        EXPECT_NE(getLastError(), 0);
        EXPECT_EQ(stream.write(&byte, 1), 1) << mode;
    }
    CFileStream reader;
    EXPECT_EQ(reader.open(path.c_str(), "rb"), 0);
    EXPECT_EQ(reader.write(&byte, 1), -1);
    EXPECT_NE(getLastError(), 0);
    EXPECT_EQ(reader.read(&byte, 1), 1);
    for (const char* mode : {"r+", "rb+", "w+", "a+b"}) {
        CFileStream both;
        EXPECT_EQ(both.open(path.c_str(), mode), 0);
        EXPECT_EQ(both.write(&byte, 1), 1) << mode;
        EXPECT_EQ(both.seek(0, SEEK_SET), 0);
        EXPECT_EQ(both.read(&byte, 1), 1) << mode;
    }
}

TEST(FileStream, WithoutAFileEveryOperationFails) {
    CFileStream stream;
    char byte = 0;
    EXPECT_EQ(stream.read(&byte, 1), -1);
    EXPECT_EQ(stream.write(&byte, 1), -1);
    EXPECT_EQ(stream.seek(0, SEEK_SET), -1);
}

}  // namespace
}  // namespace Veltro::Plinth
