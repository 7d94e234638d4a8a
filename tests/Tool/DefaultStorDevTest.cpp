// Files of the system, through the default device and through CNFile.
#include "Tool/DefaultStorDev.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Support/LogCapture.h"
#include "Support/TemporaryFile.h"
#include "Tool/Files.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;
namespace fs = std::filesystem;

/// A device for the time of a scope.
struct SDevice {
    CNStorDev_IF* device = makeDefaultStorDev();
    ~SDevice() { device->Close(); }
    CNStorDev_IF* operator->() const { return device; }
};

/// A file of the system for the time of a scope.
class CSystemFile {
public:
    CSystemFile(CFileOwner& owner, const std::string& path, const char* mode)
        : m_file(CNFile::Open(owner.id(), path.c_str(), mode, nullptr)) {}
    ~CSystemFile() { close(); }
    CSystemFile(const CSystemFile&) = delete;
    CSystemFile& operator=(const CSystemFile&) = delete;

    CNFile* operator->() const { return m_file; }
    explicit operator bool() const { return m_file != nullptr; }
    void close() {
        if (m_file != nullptr) closeFile(m_file);
        m_file = nullptr;
    }
    bool writeAll(const std::string& text) {
        std::size_t done = 0;
        return waitUntil([&] {
            done += static_cast<std::size_t>(
                m_file->Write(text.data() + done, static_cast<unsigned>(text.size() - done)));
            return done == text.size();
        });
    }
    std::string readAll(std::size_t most) {
        std::string text(most, '\0');
        std::size_t done = 0;
        bool eof = false;
        EXPECT_TRUE(waitUntil([&] {
            done += static_cast<std::size_t>(
                m_file->Read(text.data() + done, static_cast<unsigned>(most - done), eof));
            return eof || done == most;
        }));
        text.resize(done);
        return text;
    }

private:
    CNFile* m_file;
};

TEST(DefaultStorDev, AFileThatIsNotThereIsLogged) {
    const CLogCapture log;
    SDevice device;
    EXPECT_EQ(-1, device->Open("no/such/file", "rb"));
    const auto lines = log.lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(Plinth::LOG_LEVEL_ERROR, lines[0].level);
    EXPECT_EQ(".\\Src\\Tool\\DefaultStorDev.cpp", lines[0].file);
    EXPECT_NE(std::string::npos,
              lines[0].text.find(", Veltro::Ravelo::CDefaultStorDev::Open : open file failed! "
                                 "path:no/such/file, mode:rb, error:"));
    EXPECT_NE(std::string::npos, lines[0].text.find("tid:"));
    EXPECT_EQ(std::string::npos, lines[0].text.find("this:"));
}

TEST(DefaultStorDev, NoPathOrNoModeIsAFailure) {
    const CLogCapture log;
    SDevice device;
    EXPECT_EQ(-1, device->Open(nullptr, "rb"));
    EXPECT_EQ(-1, device->Open("x", nullptr));
    EXPECT_EQ(-1, device->Open("", "rb"));
    EXPECT_EQ(3, log.count(Plinth::LOG_LEVEL_ERROR, "open file failed!"));
}

TEST(DefaultStorDev, AFolderIsNoFile) {
    const CLogCapture log;
    SDevice device;
    EXPECT_EQ(-1, device->Open(fs::temp_directory_path().string().c_str(), "r"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "open file failed!"));
}

TEST(DefaultStorDev, WithoutAnOpenFileNothingWorks) {
    SDevice device;
    char byte = 0;
    EXPECT_EQ(-1, device->Write(&byte, 1));
    EXPECT_EQ(-1, device->Read(&byte, 1));
    EXPECT_EQ(-1, device->Seek(0, 0));
}

TEST(DefaultStorDev, WritesReadsAndSeeks) {
    const CTemporaryFile place;
    SDevice device;
    ASSERT_EQ(0, device->Open(place.path().c_str(), "w+"));
    EXPECT_EQ(10, device->Write("0123456789", 10));
    EXPECT_EQ(0, device->Seek(2, 0));
    char text[20] = {};
    EXPECT_EQ(3, device->Read(text, 3));
    EXPECT_STREQ("234", text);
    EXPECT_EQ(2, device->Write("xy", 2));  // without a seek in between
    EXPECT_EQ(0, device->Seek(-7, 1));
    EXPECT_EQ(10, device->Read(text, 20));
    EXPECT_STREQ("01234xy789", text);
    EXPECT_EQ(0, device->Read(text, 20));
}

TEST(DefaultStorDev, SeekTakesNoOtherWhence) {
    const CTemporaryFile place("0123456789");
    SDevice device;
    ASSERT_EQ(0, device->Open(place.path().c_str(), "r"));
    EXPECT_EQ(0, device->Seek(5, 0));
    EXPECT_EQ(-1, device->Seek(0, 2));
    EXPECT_EQ(-1, device->Seek(0, 3));
    EXPECT_EQ(-1, device->Seek(0, -1));
    EXPECT_EQ(-1, device->Seek(-1, 0));
    char byte = 0;
    EXPECT_EQ(1, device->Read(&byte, 1));
    EXPECT_EQ('5', byte);
}

TEST(DefaultStorDev, BytesAreNeverTranslated) {
    const CTemporaryFile place;
    const std::string text = std::string("a\nb\r\nc\x1a") + "d\0e";
    SDevice device;
    ASSERT_EQ(0, device->Open(place.path().c_str(), "w"));
    EXPECT_EQ(static_cast<int>(text.size()), device->Write(text.data(), static_cast<unsigned>(text.size())));
    EXPECT_EQ(text, contentOf(place.path()));
    SDevice reader;
    ASSERT_EQ(0, reader->Open(place.path().c_str(), "r"));
    char read[100];
    EXPECT_EQ(static_cast<int>(text.size()), reader->Read(read, sizeof read));
}

TEST(DefaultStorDev, WhatWasWrittenTheSystemHasAtOnce) {
    const CTemporaryFile place;
    SDevice device;
    ASSERT_EQ(0, device->Open(place.path().c_str(), "w"));
    EXPECT_EQ(3, device->Write("abc", 3));
    EXPECT_EQ("abc", contentOf(place.path()));
}

TEST(DefaultStorDev, AFileThatGrowsIsReadOnFromItsFormerEnd) {
    const CTemporaryFile place("abc");
    SDevice device;
    ASSERT_EQ(0, device->Open(place.path().c_str(), "r"));
    char text[10] = {};
    EXPECT_EQ(3, device->Read(text, 10));
    EXPECT_EQ(0, device->Read(text, 10));
    std::ofstream(place.place(), std::ios::app) << "de";
    EXPECT_EQ(2, device->Read(text, 10));
}

TEST(DefaultStorDev, ReadingAFileOpenForWritingFailsAndTheReverse) {
    const CTemporaryFile place("abc");
    SDevice writer;
    ASSERT_EQ(0, writer->Open(place.path().c_str(), "a"));
    char text[10] = {};
    EXPECT_EQ(-1, writer->Read(text, 10));
    EXPECT_EQ(1, writer->Write("d", 1));
    SDevice reader;
    ASSERT_EQ(0, reader->Open(place.path().c_str(), "r"));
    EXPECT_EQ(-1, reader->Write("x", 1));
    EXPECT_EQ(4, reader->Read(text, 10));
}

TEST(DefaultStorDev, StatDescribesTheFile) {
    const CTemporaryFile place(std::string(70'000, 'x'));
    SDevice device;
    ASSERT_EQ(0, device->Open(place.path().c_str(), "r"));
    NFile_Info info;
    info.attribute = 7;
    EXPECT_EQ(0, device->Stat(&info));
    EXPECT_EQ(70'000U, info.size);
    EXPECT_EQ(0U, info.attribute);
    EXPECT_EQ(place.path(), info.name);
    const auto now = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
    for (const std::uint64_t time : {info.create_time, info.access_time, info.modify_time}) {
        EXPECT_LE(time, now + 5);
        EXPECT_GE(time, now - 600);
    }
    EXPECT_EQ(-1, device->Stat(nullptr));
}

TEST(DefaultStorDev, AFailedStatIsLogged) {
    SDevice device;
    const CLogCapture log;
    NFile_Info info;
    info.size = 5;
    EXPECT_EQ(-1, device->Stat(&info));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, ", get fstat failed, error:"));
    EXPECT_EQ(5U, info.size);
}

TEST(DefaultStorDev, ALongPathIsCutInTheNameOnly) {
    fs::path folder = fs::temp_directory_path() / ("ravelo_" + std::string(100, 'a'));
    fs::create_directories(folder / std::string(100, 'b'));
    const std::string path = (folder / std::string(100, 'b') / std::string(100, 'c')).string();
    {
        SDevice device;
        if (device->Open(path.c_str(), "w") != 0) {
            fs::remove_all(folder);
            GTEST_SKIP() << "the system takes no path of " << path.size() << " bytes";
        }
        EXPECT_EQ(3, device->Write("abc", 3));
        NFile_Info info;
        EXPECT_EQ(0, device->Stat(&info));
        EXPECT_EQ(3U, info.size);
        EXPECT_EQ(path.substr(0, 255), info.name);
    }
    fs::remove_all(folder);
}

TEST(DefaultStorDev, NeedsTheFileThreads) {
    SDevice device;
    EXPECT_TRUE(device->NeedAIO());
}

TEST(NFileOnDisk, WritesAndReadsBack) {
    const CFilePool pool;
    CFileOwner owner;
    const CTemporaryFile place;
    const std::string text = pattern(10 * BUFFER + 99);
    CSystemFile file(owner, place.path(), "w+");
    ASSERT_TRUE(file);
    EXPECT_TRUE(file.writeAll(text));
    file->Seek(0, 0);
    EXPECT_EQ(text, file.readAll(text.size() + 1));
    file.close();
    EXPECT_EQ(text, contentOf(place.path()));
}

TEST(NFileOnDisk, PathsAreUtf8) {
    const CFilePool pool;
    CFileOwner owner;
    const CTemporaryFile place("content", reinterpret_cast<const char*>(u8"\u00e4\u0416\u4e2d\U0001F600"));
    CSystemFile file(owner, place.path(), "r");
    ASSERT_TRUE(file);
    NFile_Info info;
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(7U, info.size);
    EXPECT_EQ(place.path(), info.name);
    EXPECT_EQ("content", file.readAll(100));
}

TEST(NFileOnDisk, AppendsWhatIsWrittenFromStartToEnd) {
    const CFilePool pool;
    CFileOwner owner;
    const CTemporaryFile place("begin ");
    const std::string text = pattern(5 * BUFFER);
    CSystemFile file(owner, place.path(), "a");
    ASSERT_TRUE(file);
    EXPECT_TRUE(file.writeAll(text));
    file.close();
    EXPECT_EQ("begin " + text, contentOf(place.path()));
}

TEST(NFileOnDisk, WhatCanNotBeOpenedGivesNull) {
    const CFilePool pool;
    CFileOwner owner;
    const CLogCapture log;
    EXPECT_EQ(nullptr, CNFile::Open(owner.id(), "no/such/file", "r", nullptr));
    EXPECT_EQ(nullptr, CNFile::Open(owner.id(), fs::temp_directory_path().string().c_str(), "r", nullptr));
    EXPECT_EQ(nullptr, CNFile::Open(owner.id(), nullptr, "r", nullptr));
    EXPECT_EQ(3, log.count(Plinth::LOG_LEVEL_ERROR, "open file failed!"));
}

TEST(NFileOnDisk, WritingAFileOpenForReadingGivesMessage8) {
    const CFilePool pool;
    CFileOwner owner;
    const CTemporaryFile place("content");
    CSystemFile file(owner, place.path(), "r");
    ASSERT_TRUE(file);
    EXPECT_EQ(4, file->Write("more", 4));
    file->Seek(0, 0);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    file.close();
    EXPECT_EQ("content", contentOf(place.path()));
}

TEST(NFileOnDisk, PlacesBeyondFourGigabytesAreReached) {
    const CFilePool pool;
    CFileOwner owner;
    const CTemporaryFile place;
    constexpr std::int64_t FAR = (std::int64_t{5} << 30) + 123;
    {
        CSystemFile file(owner, place.path(), "w+");
        ASSERT_TRUE(file);
        EXPECT_TRUE(file.writeAll("start"));
        EXPECT_EQ(0, file->Seek(FAR, 0));
        EXPECT_TRUE(file.writeAll("far away"));
        EXPECT_EQ(0, file->Seek(-3, 1));
        EXPECT_EQ("way", file.readAll(10));
        EXPECT_EQ(0, file->Seek(FAR - 2, 0));
        EXPECT_EQ(std::string(2, '\0') + "far", file.readAll(5));
    }
    CSystemFile again(owner, place.path(), "r");
    ASSERT_TRUE(again);
    NFile_Info info;
    EXPECT_EQ(0, again->Stat(&info));
    EXPECT_EQ(static_cast<std::uint64_t>(FAR) + 8, info.size);
    EXPECT_EQ(0, again->Seek(FAR, 0));
    EXPECT_EQ("far away", again.readAll(100));
    EXPECT_EQ(0, again->Seek(0, 0));
    EXPECT_EQ("start", again.readAll(5));
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_ERROR));
}

TEST(NFileOnDisk, AFileTruncatedWhileItIsReadEnds) {
    const CFilePool pool;
    CFileOwner owner;
    const CTemporaryFile place(pattern(10 * BUFFER));
    CSystemFile file(owner, place.path(), "r");
    ASSERT_TRUE(file);
    EXPECT_EQ(pattern(10 * BUFFER).substr(0, BUFFER), file.readAll(BUFFER));
    std::error_code error;
    fs::resize_file(place.place(), BUFFER + 7, error);
    if (error) GTEST_SKIP() << "the system does not cut a file that is open: " << error.message();
    const std::string rest = file.readAll(10 * BUFFER);
    EXPECT_EQ(pattern(10 * BUFFER).substr(BUFFER, rest.size()), rest);
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_ERROR));
}

TEST(NFileOnDisk, AFullDiskGivesMessage8) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "this system has no device that is always full";
    const CFilePool pool;
    CFileOwner owner;
    CSystemFile file(owner, "/dev/full", "w");
    ASSERT_TRUE(file);
    const std::string text = pattern(4 * BUFFER);
    EXPECT_EQ(static_cast<int>(4 * BUFFER), file->Write(text.data(), 4 * BUFFER));
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    const int before = owner.count(NOTIFY_FILE_ERROR);
    file.close();
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, before + 1));
}

/// A small file system in memory for the time of a scope, where the test may mount one.
class CSmallDisk {
public:
    CSmallDisk() : m_folder(fs::temp_directory_path() / "ravelo_small_disk") {
        fs::create_directories(m_folder);
        const std::string command = "mount -t tmpfs -o size=1m none " + m_folder.string() + " 2>&1";
        m_mounted = fs::exists("/proc/mounts") && std::system(command.c_str()) == 0;
    }
    ~CSmallDisk() {
        if (m_mounted && std::system(("umount " + m_folder.string()).c_str()) != 0) std::abort();
        std::error_code ignored;
        fs::remove(m_folder, ignored);
    }
    CSmallDisk(const CSmallDisk&) = delete;
    CSmallDisk& operator=(const CSmallDisk&) = delete;
    explicit operator bool() const { return m_mounted; }
    std::string path(const std::string& name) const { return (m_folder / name).string(); }

private:
    fs::path m_folder;
    bool m_mounted = false;
};

TEST(NFileOnDisk, ADiskThatFillsLosesNothingOnceThereIsRoomAgain) {
    const CSmallDisk disk;
    if (!disk) GTEST_SKIP() << "this user may not mount a small disk";
    const CFilePool pool;
    CFileOwner owner;
    const std::string text = pattern(6 * BUFFER);
    std::ofstream(disk.path("ballast")) << std::string(700'000, 'b');
    CSystemFile file(owner, disk.path("file"), "w+");
    ASSERT_TRUE(file);
    std::size_t done = 0;
    EXPECT_TRUE(waitUntil([&] {
        if (owner.count(NOTIFY_FILE_ERROR) > 0) return true;
        done += static_cast<std::size_t>(
            file->Write(text.data() + done, static_cast<unsigned>(text.size() - done)));
        return false;
    }));
    fs::remove(disk.path("ballast"));
    EXPECT_TRUE(file.writeAll(text.substr(done)));
    file.close();
    EXPECT_EQ(text, contentOf(disk.path("file")));
}

}  // namespace
}  // namespace Veltro::Ravelo
