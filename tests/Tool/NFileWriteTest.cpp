// Write-behind: what a write takes, when it waits, and what becomes of overlaps and failures.
#include <Ravelo/NFile.h>

#include "Support/ScarceMemory.h"
#include "Tool/Files.h"
#include "Tool/NFilePool.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

class NFileWrite : public CFileTest<CFilePool> {};

int write(CDiskFile& file, const std::string& text) {
    return file->Write(text.data(), static_cast<unsigned>(text.size()));
}

/// A file over a device whose writes wait for a gate.
struct SHeld {
    CFilePool pool;
    CFileOwner owner;
    SDisk disk;
    CGate gate;
    std::unique_ptr<CDiskFile> file;

    explicit SHeld(const std::string& content = {}) {
        disk.fill(content);
        disk.on_write = [this] { gate.pass(); };
        file = std::make_unique<CDiskFile>(owner, disk);
    }
    ~SHeld() { gate.open(); }
    CDiskFile& operator*() { return *file; }
    bool waitWriting() {
        return waitUntil([this] { return disk.inside.load() == 1; });
    }
};

TEST_F(NFileWrite, ASmallWriteStaysInItsBuffer) {
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, write(file, "hello"));
    EXPECT_EQ(6, write(file, " world"));
    EXPECT_EQ(0, disk.count("write"));
    file.close();
    EXPECT_EQ((std::vector<std::string>{"write 0+11"}), disk.callsOf("write"));
    EXPECT_EQ("hello world", disk.content());
}

TEST_F(NFileWrite, AWriteThatEndsAtABuffersEndIsSubmittedAtOnce) {
    CDiskFile file(owner, disk);
    const std::string text = pattern(BUFFER);
    EXPECT_EQ(static_cast<int>(BUFFER), write(file, text));
    EXPECT_TRUE(waitUntil([&] { return disk.content() == text; }));
    EXPECT_EQ(1, write(file, "x"));
    file.close();
    EXPECT_EQ((std::vector<std::string>{"write 0+131072", "write 131072+1"}), disk.callsOf("write"));
}

TEST_F(NFileWrite, OneByteLessIsKept) {
    CDiskFile file(owner, disk);
    EXPECT_EQ(static_cast<int>(BUFFER - 1), write(file, pattern(BUFFER - 1)));
    EXPECT_EQ(0, disk.count("seek"));
}

TEST(NFileWriteHeld, TakesWhatFitsAndTellsWhenToGoOn) {
    SHeld held;
    const std::string text = pattern(6 * BUFFER);
    EXPECT_EQ(static_cast<int>(4 * BUFFER), write(*held, text));
    EXPECT_EQ(0, write(*held, text));
    held.owner.settle();
    EXPECT_EQ(0, held.owner.count(NOTIFY_FILE_WRITABLE));
    held.gate.open();
    EXPECT_TRUE(held.owner.waitFor(NOTIFY_FILE_WRITABLE, 1));
    EXPECT_EQ(static_cast<int>(2 * BUFFER), write(*held, text.substr(4 * BUFFER)));
    held.file->close();
    EXPECT_EQ(text, held.disk.content());
    EXPECT_EQ(1, held.owner.count(NOTIFY_FILE_WRITABLE));
}

TEST(NFileWriteHeld, WhileAMessageIsAwaitedEvenNullIsNoError) {
    SHeld held;
    EXPECT_EQ(static_cast<int>(4 * BUFFER), write(*held, pattern(5 * BUFFER)));
    EXPECT_EQ(0, (*held)->Write(nullptr, 0));
    held.gate.open();
    EXPECT_TRUE(held.owner.waitFor(NOTIFY_FILE_WRITABLE, 1));
    held.owner.settle();
    EXPECT_EQ(0, held.owner.count(NOTIFY_FILE_ERROR));
}

TEST(NFileWriteHeld, BuffersAreWrittenInTheOrderOfTheirPlaces) {
    SHeld held(std::string(8 * BUFFER, '.'));
    // Read-ahead in between leaves partly written buffers behind.
    EXPECT_EQ(static_cast<int>(BUFFER), write(*held, std::string(BUFFER, 'a')));
    EXPECT_TRUE(held.waitWriting());
    (*held)->Seek(5 * BUFFER, 0);
    write(*held, "late");
    (*held)->Seek(3 * BUFFER, 0);
    write(*held, "early");
    (*held)->Seek(0, 0);
    held.gate.open();
    held.file->close();
    EXPECT_EQ((std::vector<std::string>{"write 0+131072", "write 393216+5", "write 655360+4"}),
              held.disk.callsOf("write"));
}

TEST(NFileWriteHeld, AWriteIntoABufferThatIsBeingWrittenWaits) {
    SHeld held;
    EXPECT_EQ(5, write(*held, "first"));
    (*held)->Seek(0, 0);
    EXPECT_TRUE(held.waitWriting());
    EXPECT_EQ(0, write(*held, "SECOND"));
    held.gate.open();
    EXPECT_TRUE(held.owner.waitFor(NOTIFY_FILE_WRITABLE, 1));
    EXPECT_EQ(6, write(*held, "SECOND"));
    held.file->close();
    EXPECT_EQ("SECOND", held.disk.content());
}

TEST(NFileWriteHeld, AWriteUpToABusyBufferReturnsShort) {
    SHeld held;
    (*held)->Seek(1000, 0);
    EXPECT_EQ(4, write(*held, "busy"));
    (*held)->Seek(990, 0);
    EXPECT_TRUE(held.waitWriting());
    EXPECT_EQ(10, write(*held, "0123456789WXYZ!"));
    EXPECT_EQ(0, write(*held, "WXYZ!"));
    held.gate.open();
    EXPECT_TRUE(held.owner.waitFor(NOTIFY_FILE_WRITABLE, 1));
    EXPECT_EQ(5, write(*held, "WXYZ!"));
    held.file->close();
    EXPECT_EQ("0123456789WXYZ!", held.disk.content().substr(990));
}

TEST(NFileWriteHeld, AWriteBehindABusyBufferDoesNotWait) {
    SHeld held;
    EXPECT_EQ(5, write(*held, "hello"));
    (*held)->Seek(0, 1);
    EXPECT_TRUE(held.waitWriting());
    EXPECT_EQ(6, write(*held, " world"));
    held.gate.open();
    held.file->close();
    EXPECT_EQ("hello world", held.disk.content());
}

TEST_F(NFileWrite, WhatIsWrittenLaterStandsWhateverTheOrderOfPlaces) {
    for (const int gap : {-1, 1, 100, static_cast<int>(BUFFER) - 1, static_cast<int>(BUFFER)}) {
        SDisk fresh;
        CDiskFile file(owner, fresh);
        std::string expected(4 * BUFFER, '\0');
        const auto put = [&](std::int64_t offset, const std::string& text) {
            EXPECT_EQ(0, file->Seek(offset, 0));
            EXPECT_TRUE(file.writeAll(text));
            expected.replace(static_cast<std::size_t>(offset), text.size(), text);
        };
        put(3 * BUFFER, std::string(BUFFER, 'z'));
        put(BUFFER + gap, pattern(BUFFER, 1));
        put(BUFFER, pattern(BUFFER, 2));
        put(BUFFER - gap, pattern(BUFFER, 3));
        file.close();
        EXPECT_EQ(expected, fresh.content()) << gap;
    }
}

TEST_F(NFileWrite, BuffersLeftBehindByReadsMakeRoomForAWrite) {
    disk.fill(std::string(64 * BUFFER, '.'));
    CDiskFile file(owner, disk);
    std::string expected = disk.content();
    // Each round leaves a dirty buffer that nobody has submitted.
    for (std::size_t i = 0; i < 12; ++i) {
        EXPECT_TRUE(file.writeAll("dirty"));
        expected.replace(i * (BUFFER + 5), 5, "dirty");
        EXPECT_EQ(std::string(BUFFER, '.'), file.readAll(BUFFER)) << i;
    }
    file.close();
    EXPECT_EQ(expected, disk.content());
}

TEST_F(NFileWrite, AShortDeviceGetsTheRestInFurtherCalls) {
    disk.longest = 50'000;
    CDiskFile file(owner, disk);
    const std::string text = pattern(BUFFER);
    EXPECT_TRUE(file.writeAll(text));
    file.close();
    EXPECT_EQ((std::vector<std::string>{"write 0+131072", "write 50000+81072", "write 100000+31072"}),
              disk.callsOf("write"));
    EXPECT_EQ(text, disk.content());
}

TEST_F(NFileWrite, AFailureIsToldOnceAndTheBytesAreTriedAgainAtTheNextFlush) {
    disk.failing_writes = 1;
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, write(file, "hello"));
    file->Seek(0, 1);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    owner.settle();
    EXPECT_EQ(1, disk.count("write"));  // no attempt that nobody asked for
    EXPECT_EQ(6, write(file, " world"));
    file->Seek(0, 1);
    EXPECT_TRUE(waitUntil([&] { return disk.content() == "hello world"; }));
    file.close();
    EXPECT_EQ(1, owner.count(NOTIFY_FILE_ERROR));
    EXPECT_EQ("hello world", disk.content());
}

TEST_F(NFileWrite, AFailedSeekOfTheDeviceIsAFailure) {
    disk.failing_seeks = 1;
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, write(file, "hello"));
    file->Seek(0, 0);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    EXPECT_EQ(0, disk.count("write"));
    file.close();
    EXPECT_EQ("hello", disk.content());
}

TEST_F(NFileWrite, ADeviceThatTakesNothingHasFailed) {
    disk.zero_writes = 1;
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, write(file, "hello"));
    file->Seek(0, 0);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    file.close();
    EXPECT_EQ("hello", disk.content());
}

TEST_F(NFileWrite, AWriterThatWaitsHearsOfTheFailureAndMayTryAgain) {
    disk.bad_from = 0;
    CDiskFile file(owner, disk);
    const std::string text = pattern(5 * BUFFER);
    EXPECT_EQ(static_cast<int>(4 * BUFFER), write(file, text));
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    const auto rest = [&] { return write(file, text.substr(4 * BUFFER)); };
    // Each attempt is asked for, and answered by message 8 alone.
    EXPECT_TRUE(waitUntil([&] { return disk.inside.load() == 0; }));
    int attempts = owner.count(NOTIFY_FILE_ERROR);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, rest());
        EXPECT_TRUE(waitUntil([&] { return owner.count(NOTIFY_FILE_ERROR) > attempts; }));
        attempts = owner.count(NOTIFY_FILE_ERROR);
    }
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_WRITABLE));
    disk.bad_from = -1;
    EXPECT_TRUE(file.writeAll(text.substr(4 * BUFFER)));
    file.close();
    EXPECT_EQ(text, disk.content());
}

TEST_F(NFileWrite, ABadPlaceOfTheDeviceLeavesTheRestUsable) {
    disk.fill(std::string(8 * BUFFER, '.'));
    disk.bad_from = 4 * BUFFER;
    CDiskFile file(owner, disk);
    file->Seek(5 * BUFFER, 0);
    EXPECT_EQ(3, write(file, "bad"));
    file->Seek(0, 0);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    const std::string text = pattern(4 * BUFFER);
    EXPECT_TRUE(file.writeAll(text));
    file->Seek(0, 0);
    EXPECT_EQ(text, file.readAll(4 * BUFFER));
    file->Seek(5 * BUFFER, 0);
    EXPECT_EQ("bad..", file.readAll(3) + "..");
    file.close();
    EXPECT_EQ(text + std::string(4 * BUFFER, '.'), disk.content());
}

TEST_F(NFileWrite, ALastFailureAtCloseIsToldOnceAndTheFileEnds) {
    disk.bad_from = 0;
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, write(file, "hello"));
    file.close();
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    owner.settle();
    EXPECT_EQ(1, owner.count(NOTIFY_FILE_ERROR));
    EXPECT_EQ(1, disk.closes.load());
}

TEST_F(NFileWrite, CloseTriesEveryBufferThatIsLeft) {
    CDiskFile file(owner, disk);
    disk.failing_writes = 1;
    EXPECT_EQ(5, write(file, "first"));
    file->Seek(4 * BUFFER, 0);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    EXPECT_EQ(6, write(file, "second"));
    disk.failing_writes = 1;  // of the two, the first fails again
    file.close();
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 2));
    EXPECT_EQ(std::string(4 * BUFFER, '\0') + "second", disk.content());
}

TEST_F(NFileWrite, WithoutMemoryForABufferMessage8Follows) {
    CDiskFile file(owner, disk);
    keepRecordsForMessages();
    CNBufPool* blocks = CNBufPool::join();
    std::vector<std::unique_ptr<SNBufBlock>> taken;
    while (blocks->Size() > 0) taken.push_back(blocks->Pop());
    {
        const CScarceMemory scarce(0);
        EXPECT_EQ(0, file->Write("x", 1));
    }
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    EXPECT_TRUE(file.writeAll("hello"));
    file.close();
    EXPECT_EQ("hello", disk.content());
    taken.clear();
    CNBufPool::leave();
}

TEST_F(NFileWrite, TheDeviceIsNeverCalledTwiceAtOnce) {
    disk.fill(pattern(16 * BUFFER));
    CDiskFile file(owner, disk);
    for (int i = 0; i < 50; ++i) {
        file->Seek(i % 7 * BUFFER, 0);
        EXPECT_TRUE(file.writeAll(pattern(BUFFER + 5, static_cast<unsigned>(i))));
        EXPECT_EQ(BUFFER, file.readAll(BUFFER).size());
    }
    file.close();
    EXPECT_EQ(0, disk.overlaps.load());
}

}  // namespace
}  // namespace Veltro::Ravelo
