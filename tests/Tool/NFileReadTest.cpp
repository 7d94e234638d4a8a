// Read-ahead: when a read waits, what it gives, the file's end, and failures; and the position.
#include <Ravelo/NFile.h>

#include <limits>

#include "Support/ScarceMemory.h"
#include "Tool/Files.h"
#include "Tool/NFilePool.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

class NFileRead : public CFileTest<CFilePool> {};
class NFileSeek : public CFileTest<CFilePool> {};
class NFileSeekDirect : public CFileTest<CPublicPool> {};

int readOnce(CDiskFile& file, std::string& text, unsigned length, bool& eof) {
    text.assign(length, '\0');
    const int count = file->Read(text.data(), length, eof);
    text.resize(static_cast<std::size_t>(count));
    return count;
}

TEST_F(NFileRead, TheFirstReadStartsAReadAheadAndMessage7Follows) {
    disk.fill(pattern(3 * BUFFER));
    CDiskFile file(owner, disk);
    std::string text;
    bool eof = true;
    EXPECT_EQ(0, readOnce(file, text, 100, eof));
    EXPECT_FALSE(eof);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_READABLE, 1));
    EXPECT_EQ((std::vector<std::string>{"read 0+131072"}), disk.callsOf("read"));
    EXPECT_EQ(100, readOnce(file, text, 100, eof));
    EXPECT_EQ(pattern(3 * BUFFER).substr(0, 100), text);
    EXPECT_EQ(1, disk.count("read"));
    EXPECT_EQ(1, owner.count(NOTIFY_FILE_READABLE));
}

TEST_F(NFileRead, WhileAReadAheadIsUnderWayReadsGiveNothing) {
    disk.fill("content");
    CGate gate;
    disk.on_read = [&] { gate.pass(); };
    CDiskFile file(owner, disk);
    std::string text;
    bool eof = true;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(0, readOnce(file, text, 100, eof));
    EXPECT_EQ(0, file->Read(nullptr, 0, eof));
    owner.settle();
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_READABLE) + owner.count(NOTIFY_FILE_ERROR));
    gate.open();
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_READABLE, 1));
    EXPECT_EQ(7, readOnce(file, text, 100, eof));
    EXPECT_TRUE(eof);
}

TEST_F(NFileRead, TheEndIsToldWithTheLastByte) {
    disk.fill("0123456789");
    CDiskFile file(owner, disk);
    bool ended = true;
    EXPECT_EQ("012345678", file.readAll(9, &ended));
    EXPECT_FALSE(ended);
    std::string text;
    bool eof = false;
    EXPECT_EQ(1, readOnce(file, text, 1, eof));
    EXPECT_TRUE(eof);
}

TEST_F(NFileRead, AnEmptyFileEndsAtOnce) {
    CDiskFile file(owner, disk);
    bool ended = false;
    EXPECT_EQ("", file.readAll(10, &ended));
    EXPECT_TRUE(ended);
}

TEST_F(NFileRead, AFileOfWholeBuffersEndsBehindThem) {
    disk.fill(pattern(2 * BUFFER));
    CDiskFile file(owner, disk);
    bool ended = false;
    EXPECT_EQ(pattern(2 * BUFFER), file.readAll(3 * BUFFER, &ended));
    EXPECT_TRUE(ended);
}

TEST_F(NFileRead, AtTheEndEachReadLooksAgain) {
    disk.fill("some");
    CDiskFile file(owner, disk);
    bool ended = false;
    EXPECT_EQ("some", file.readAll(100, &ended));
    disk.fill("some more");
    EXPECT_EQ(" more", file.readAll(100, &ended));
    EXPECT_TRUE(ended);
}

TEST_F(NFileRead, ATruncatedFileEndsEarly) {
    disk.fill(pattern(8 * BUFFER));
    CDiskFile file(owner, disk);
    EXPECT_EQ(BUFFER, file.readAll(BUFFER).size());
    disk.fill(pattern(8 * BUFFER).substr(0, BUFFER + 10));
    bool ended = false;
    const std::size_t rest = file.readAll(8 * BUFFER, &ended).size();
    EXPECT_TRUE(ended);
    EXPECT_LE(rest, 8 * BUFFER);
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_ERROR));
}

TEST_F(NFileRead, AFileTruncatedAfterItWasWrittenEndsEarly) {
    CDiskFile file(owner, disk);
    EXPECT_TRUE(file.writeAll(pattern(2 * BUFFER)));
    file->Seek(0, 0);
    EXPECT_TRUE(waitUntil([&] { return disk.content().size() == 2 * BUFFER; }));
    disk.fill("short");
    bool ended = false;
    EXPECT_EQ("short", file.readAll(2 * BUFFER, &ended));
    EXPECT_TRUE(ended);
}

TEST_F(NFileRead, AShortDeviceIsAskedUntilTheBufferIsFull) {
    disk.fill(pattern(BUFFER));
    disk.longest = 100'000;
    CDiskFile file(owner, disk);
    EXPECT_EQ(pattern(BUFFER), file.readAll(BUFFER));
    EXPECT_EQ((std::vector<std::string>{"read 0+131072", "read 100000+31072"}), disk.callsOf("read"));
}

TEST_F(NFileRead, AReadMayBeLargerThanAllBuffers) {
    const std::string text = pattern(20 * BUFFER + 1234);
    disk.fill(text);
    CDiskFile file(owner, disk);
    EXPECT_EQ(text, file.readAll(text.size() + 1));
    EXPECT_EQ(0, disk.overlaps.load());
}

TEST_F(NFileRead, ReadsThatGoStraightOnAreReadFurtherAhead) {
    disk.fill(pattern(20 * BUFFER));
    CDiskFile file(owner, disk);
    EXPECT_EQ(pattern(20 * BUFFER).substr(0, 5 * BUFFER), file.readAll(5 * BUFFER));
    EXPECT_TRUE(waitUntil([&] { return disk.count("read") >= 7; }));
    // Never two times the same place.
    const auto reads = disk.callsOf("read");
    for (std::size_t i = 0; i < reads.size(); ++i) {
        EXPECT_EQ("read " + std::to_string(i * BUFFER) + "+131072", reads[i]);
    }
}

TEST_F(NFileRead, JumpsAreNotReadFurtherAhead) {
    disk.fill(pattern(20 * BUFFER));
    CDiskFile file(owner, disk);
    for (const int place : {3, 9, 1, 15}) {
        file->Seek(place * static_cast<std::int64_t>(BUFFER), 0);
        EXPECT_EQ(10U, file.readAll(10).size());
    }
    owner.settle();
    EXPECT_EQ(4, disk.count("read"));
}

TEST_F(NFileRead, WhatWasWrittenIsReadBackBeforeTheDeviceHasIt) {
    disk.fill(std::string(100, '.'));
    CDiskFile file(owner, disk);
    EXPECT_EQ("..........", file.readAll(10));
    EXPECT_EQ(5, file->Write("WRITE", 5));
    EXPECT_EQ(".....", file.readAll(5));
    disk.failing_writes = 1;
    file->Seek(8, 0);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    EXPECT_EQ("..WRITE...", file.readAll(10));
}

TEST_F(NFileRead, AHoleBeforeUnwrittenBytesReadsAsZerosNotAsTheEnd) {
    disk.fill("start");
    CDiskFile file(owner, disk);
    bool ended = false;
    EXPECT_EQ("start", file.readAll(100, &ended));
    EXPECT_TRUE(ended);
    file->Seek(BUFFER + 3, 0);
    EXPECT_TRUE(file.writeAll("end"));
    file->Seek(0, 0);
    EXPECT_EQ("start" + std::string(BUFFER - 2, '\0') + "end", file.readAll(2 * BUFFER, &ended));
    EXPECT_TRUE(ended);
}

TEST_F(NFileRead, AFailureIsToldOnceAndTheNextReadTriesAgain) {
    disk.fill("content");
    disk.failing_reads = 2;
    CDiskFile file(owner, disk);
    std::string text;
    bool eof = false;
    for (int attempt = 1; attempt <= 2; ++attempt) {
        EXPECT_EQ(0, readOnce(file, text, 100, eof));
        EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, attempt));
        EXPECT_TRUE(waitUntil([&] { return disk.inside.load() == 0; }));
        EXPECT_EQ(attempt, disk.count("read"));
        EXPECT_EQ(0, owner.count(NOTIFY_FILE_READABLE));
    }
    EXPECT_EQ(0, readOnce(file, text, 100, eof));
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_READABLE, 1));
    EXPECT_EQ(7, readOnce(file, text, 100, eof));
    EXPECT_EQ(2, owner.count(NOTIFY_FILE_ERROR));
}

TEST_F(NFileRead, AFailedSeekOfTheDeviceIsAFailure) {
    disk.fill("content");
    disk.failing_seeks = 1;
    CDiskFile file(owner, disk);
    std::string text;
    bool eof = false;
    EXPECT_EQ(0, readOnce(file, text, 100, eof));
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    EXPECT_EQ("content", file.readAll(100));
}

TEST_F(NFileRead, AFailedReadFurtherAheadIsToldWhenItIsWanted) {
    const std::string text = pattern(8 * BUFFER);
    disk.fill(text);
    std::atomic<int> reads{0};
    disk.on_read = [&] {
        if (reads.fetch_add(1) == 4) disk.failing_reads = 1;
    };
    CDiskFile file(owner, disk);
    EXPECT_EQ(text, file.readAll(text.size()));
    EXPECT_LE(owner.count(NOTIFY_FILE_ERROR), 1);
}

TEST_F(NFileRead, WithoutMemoryForABufferMessage8Follows) {
    disk.fill("content");
    CDiskFile file(owner, disk);
    keepRecordsForMessages();
    CNBufPool* blocks = CNBufPool::join();
    std::vector<std::unique_ptr<SNBufBlock>> taken;
    while (blocks->Size() > 0) taken.push_back(blocks->Pop());
    std::string text;
    bool eof = false;
    {
        const CScarceMemory scarce(0);
        EXPECT_EQ(0, readOnce(file, text, 100, eof));
        EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    }
    EXPECT_EQ("content", file.readAll(100));
    file.close();
    taken.clear();
    CNBufPool::leave();
}

TEST_F(NFileRead, WithEveryBufferBeingWrittenAReadWaitsForThem) {
    disk.fill(std::string(20 * BUFFER, '.'));
    CGate gate;
    disk.on_write = [&] { gate.pass(); };
    CDiskFile file(owner, disk);
    EXPECT_EQ(0, file->SetBufferSize(BUFFER, 2));
    EXPECT_TRUE(file.writeAll(std::string(2 * BUFFER, 'x')));
    std::string text;
    bool eof = false;
    EXPECT_EQ(0, readOnce(file, text, 10, eof));
    owner.settle();
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_READABLE));
    gate.open();
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_READABLE, 1));
    EXPECT_EQ("..........", file.readAll(10));
}

TEST_F(NFileRead, AReadOfBytesThatAreBeingWrittenWaitsForThem) {
    disk.fill(std::string(10, '.'));
    CGate gate;
    disk.on_write = [&] { gate.pass(); };
    CDiskFile file(owner, disk);
    EXPECT_TRUE(file.writeAll("new"));
    file->Seek(0, 0);
    std::string text;
    bool eof = false;
    EXPECT_EQ(0, readOnce(file, text, 10, eof));
    EXPECT_EQ(0, disk.count("read"));
    gate.open();
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_READABLE, 1));
    EXPECT_EQ("new.......", file.readAll(10));
}

TEST_F(NFileSeek, FromThePositionOrFromTheStart) {
    disk.fill("0123456789");
    CDiskFile file(owner, disk);
    EXPECT_EQ(0, file->Seek(4, 0));
    EXPECT_EQ("45", file.readAll(2));
    EXPECT_EQ(0, file->Seek(-3, 1));
    EXPECT_EQ("34", file.readAll(2));
    EXPECT_EQ(0, file->Seek(3, 1));
    EXPECT_EQ("89", file.readAll(2));
}

TEST_F(NFileSeek, FromTheEndIsFromTheStart) {
    disk.fill("0123456789");
    CDiskFile file(owner, disk);
    EXPECT_EQ(0, file->Seek(5, 0));
    EXPECT_EQ(0, file->Seek(0, 2));
    EXPECT_EQ("01", file.readAll(2));
    EXPECT_EQ(0, file->Seek(7, 77));
    EXPECT_EQ("78", file.readAll(2));
}

TEST_F(NFileSeek, BeforeTheStartOrBeyondAllNumbersIsRefused) {
    disk.fill("0123456789");
    CDiskFile file(owner, disk);
    EXPECT_EQ(0, file->Seek(5, 0));
    EXPECT_EQ(-1, file->Seek(-1, 0));
    EXPECT_EQ(-1, file->Seek(-6, 1));
    EXPECT_EQ(-1, file->Seek(std::numeric_limits<std::int64_t>::max(), 0));
    EXPECT_EQ(-1, file->Seek(std::numeric_limits<std::int64_t>::max() - 2 * BUFFER, 1));
    EXPECT_EQ(-1, file->Seek(std::numeric_limits<std::int64_t>::min(), 1));
    EXPECT_EQ("56", file.readAll(2));
    EXPECT_EQ(0, disk.count("seek -"));
}

TEST_F(NFileSeek, LetsWhatWasWrittenGoToTheDevice) {
    CDiskFile file(owner, disk);
    EXPECT_EQ(4, file->Write("text", 4));
    EXPECT_EQ(0, file->Seek(0, 1));
    EXPECT_TRUE(waitUntil([&] { return disk.content() == "text"; }));
}

TEST_F(NFileSeek, WithNothingToWriteLeavesTheDeviceAlone) {
    disk.fill("text");
    CDiskFile file(owner, disk);
    EXPECT_EQ("te", file.readAll(2));
    const int seeks = disk.count("seek");
    EXPECT_EQ(0, file->Seek(0, 0));
    EXPECT_EQ("te", file.readAll(2));
    EXPECT_EQ(seeks, disk.count("seek"));
}

TEST_F(NFileSeek, LetsAReaderAtTheEndFollowAFileThatGrows) {
    CDiskFile file(owner, disk);
    std::string text;
    for (const char* part : {"one", " two", " three"}) {
        bool ended = false;
        EXPECT_EQ("", file.readAll(100, &ended)) << "it stands at the end";
        EXPECT_TRUE(ended);
        disk.fill(text + part);
        EXPECT_EQ(0, file->Seek(0, 1));
        EXPECT_EQ(part, file.readAll(100, &ended));
        EXPECT_TRUE(ended);
        text += part;
    }
}

TEST_F(NFileSeekDirect, ASeekGivesTheDevicesResult) {
    CDiskFile file(owner, disk);
    disk.failing_seeks = 1;
    EXPECT_EQ(-1, file->Seek(3, 2));
    EXPECT_EQ(1, disk.count("seek 3 2"));
}

}  // namespace
}  // namespace Veltro::Ravelo
