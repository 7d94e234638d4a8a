// Opening, describing, sizing and closing an asynchronous file.
#include <Ravelo/NFile.h>

#include "Core/NetHandlerRecord.h"
#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"
#include "Tool/Files.h"
#include "Tool/NFilePool.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

class NFile : public CFileTest<CFilePool> {};
class NFileDirect : public CFileTest<CPublicPool> {};

TEST_F(NFile, OpenGivesPathAndModeToTheDevice) {
    CDiskFile file(owner, disk, "w+");
    EXPECT_EQ(1, disk.count("open disk w+"));
    EXPECT_EQ(1, disk.count("stat"));
}

TEST_F(NFile, AnOpenThatFailsClosesTheDeviceOnceAndGivesNull) {
    disk.opens = false;
    EXPECT_EQ(nullptr, CNFile::Open(owner.id(), "disk", "r", new CMemoryDevice(disk)));
    EXPECT_EQ(1, disk.closes.load());
    owner.settle();
    EXPECT_EQ(1, disk.closes.load());
}

TEST_F(NFile, WithoutMemoryOpenClosesTheDeviceAndGivesNull) {
    for (int left = 0; left < 2; ++left) {
        SDisk fresh;
        auto* device = new CMemoryDevice(fresh);
        {
            const CScarceMemory scarce(left);
            EXPECT_EQ(nullptr, CNFile::Open(owner.id(), "disk", "r", device)) << left;
        }
        EXPECT_EQ(1, fresh.closes.load()) << left;
    }
}

TEST_F(NFile, WithoutMemoryForADeviceOpenGivesNull) {
    const CScarceMemory scarce(0);
    EXPECT_EQ(nullptr, CNFile::Open(-1, "disk", "r", nullptr));
}

TEST_F(NFile, StatTellsWhatTheDeviceToldAtTheOpen) {
    disk.fill("1234567");
    CDiskFile file(owner, disk);
    EXPECT_TRUE(file.writeAll("more than seven bytes"));
    file->Seek(0, 0);
    NFile_Info info;
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(7U, info.size);
    EXPECT_EQ(1, disk.count("stat"));
}

TEST_F(NFile, StatAsksAgainAsLongAsNothingIsKnown) {
    disk.has_stat = false;
    CDiskFile file(owner, disk);
    NFile_Info info;
    EXPECT_EQ(-7, file->Stat(&info));
    disk.has_stat = true;
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(3, disk.count("stat"));
}

TEST_F(NFile, StatOfNullIsRefused) {
    CDiskFile file(owner, disk);
    EXPECT_EQ(-1, file->Stat(nullptr));
}

TEST_F(NFile, CloseWritesAllThatWasTakenAndClosesTheDeviceOnce) {
    const std::string text = pattern(3 * BUFFER + 77);
    {
        CDiskFile file(owner, disk);
        EXPECT_EQ(static_cast<int>(text.size()),
                  file->Write(text.data(), static_cast<unsigned>(text.size())));
    }
    EXPECT_EQ(text, disk.content());
    EXPECT_EQ(1, disk.closes.load());
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_ERROR));
}

TEST_F(NFile, CloseTwiceClosesOnce) {
    CDiskFile holder(owner, disk);
    CNFile* file = holder.release();
    const long id = file->GetID();
    file->AddRef();
    file->Close();
    file->Close();
    EXPECT_TRUE(waitUntil([id] { return !isBound(id); }));
    file->Close();
    EXPECT_EQ(1, disk.closes.load());
    file->DecRef();
    EXPECT_EQ(1, disk.closes.load());
}

TEST_F(NFile, AfterCloseNothingIsTakenOrGiven) {
    for (const bool buffered : {true, false}) {
        SDisk fresh;
        fresh.fill("content");
        fresh.needs_aio = buffered;
        CDiskFile holder(owner, fresh);
        CNFile* file = holder.release();
        const long id = file->GetID();
        file->AddRef();
        file->Close();
        char text[10];
        bool eof = false;
        EXPECT_EQ(0, file->Write("more", 4));
        EXPECT_EQ(0, file->Read(text, 4, eof));
        EXPECT_EQ(-1, file->Seek(0, 0));
        EXPECT_TRUE(waitUntil([id] { return !isBound(id); }));
        EXPECT_EQ(-1, file->SetBufferSize(BUFFER, 8));
        EXPECT_EQ(0, file->Write("more", 4));
        EXPECT_EQ(0, file->Read(text, 4, eof));
        EXPECT_EQ("content", fresh.content());
        file->DecRef();
        EXPECT_EQ(1, fresh.closes.load());
    }
}

TEST(NFileAndPools, ClosingInsideEachMessageIsAllowed) {
    for (const unsigned wanted : {NOTIFY_FILE_WRITABLE, NOTIFY_FILE_READABLE, NOTIFY_FILE_ERROR}) {
        const CFilePool pool;
        SDisk disk;
        CNFile* file = nullptr;
        std::atomic<long> closed_id{0};
        CFileOwner owner;
        CGate ready;
        disk.on_write = [&] { ready.pass(); };  // so that a long write does not fit
        owner.on_message = [&](long, unsigned type) {
            if (type != wanted || !ready.pass() || closed_id.load() != 0) return;
            closed_id.store(file->GetID());
            file->Close();
        };
        file = CNFile::Open(owner.id(), "disk", "r+", new CMemoryDevice(disk));
        const std::string text = pattern(6 * BUFFER);
        int taken = 0;
        bool eof = false;
        char byte;
        if (wanted == NOTIFY_FILE_WRITABLE) taken = file->Write(text.data(), 6 * BUFFER);
        if (wanted == NOTIFY_FILE_READABLE) file->Read(&byte, 1, eof);
        if (wanted == NOTIFY_FILE_ERROR) file->Write(nullptr, 1);
        ready.open();
        EXPECT_TRUE(waitUntil([&] { return closed_id.load() != 0 && !isBound(closed_id.load()); }));
        EXPECT_EQ(1, disk.closes.load());
        EXPECT_EQ(text.substr(0, static_cast<std::size_t>(taken)), disk.content());
    }
}

TEST_F(NFile, AnOwnerThatIsGoneDoesNotDisturbTheFile) {
    CDiskFile file(owner, disk);
    owner.close();
    const std::string text = pattern(10 * BUFFER);
    EXPECT_TRUE(file.writeAll(text));
    file->Write(nullptr, 0);
    file->Seek(0, 0);
    EXPECT_EQ(text, file.readAll(text.size()));
    file.close();
    EXPECT_EQ(text, disk.content());
}

TEST(NFileAndPools, DestroyingThePoolRightAfterCloseLosesNothing) {
    for (int turn = 0; turn < 20; ++turn) {
        SDisk disk;
        const std::string text = pattern(4 * BUFFER, static_cast<unsigned>(turn));
        CNFile* file = nullptr;
        {
            const CFilePool pool;
            CFileOwner owner;
            CDiskFile holder(owner, disk);
            file = holder.release();
            file->AddRef();
            EXPECT_EQ(static_cast<int>(4 * BUFFER), file->Write(text.data(), 4 * BUFFER));
            file->Close();
        }
        // The pool may not have come to let the object go.
        for (auto left = SNetHandlerRecord::of(*file).references.count(); left > 0; --left) file->DecRef();
        EXPECT_EQ(text, disk.content());
        EXPECT_EQ(1, disk.closes.load());
    }
}

TEST_F(NFile, BuffersComeFromThePoolAndGoBack) {
    CNBufPool* blocks = CNBufPool::join();
    {
        CDiskFile file(owner, disk);
        EXPECT_EQ(64U, blocks->Size());
        file->Write("text", 4);
        EXPECT_EQ(63U, blocks->Size());
    }
    EXPECT_EQ(64U, blocks->Size());
    CNBufPool::leave();
}

TEST_F(NFile, SetBufferSizeSetsHowMuchAWriteTakes) {
    CGate gate;
    disk.on_write = [&] { gate.pass(); };
    CDiskFile file(owner, disk);
    EXPECT_EQ(0, file->SetBufferSize(1, 2));
    const std::string text = pattern(5 * BUFFER);
    EXPECT_EQ(static_cast<int>(2 * BUFFER), file->Write(text.data(), 5 * BUFFER));
    gate.open();
}

TEST_F(NFile, SetBufferSizeOfZeroMeansFourBuffers) {
    for (const auto& [size, count] : {std::pair{0U, 9U}, std::pair{BUFFER, 0U}}) {
        SDisk fresh;
        CGate gate;
        fresh.on_write = [&] { gate.pass(); };
        CDiskFile file(owner, fresh);
        EXPECT_EQ(0, file->SetBufferSize(BUFFER, 2));
        EXPECT_EQ(0, file->SetBufferSize(size, count));
        const std::string text = pattern(9 * BUFFER);
        EXPECT_EQ(static_cast<int>(4 * BUFFER), file->Write(text.data(), 9 * BUFFER));
        gate.open();
    }
}

TEST_F(NFile, SetBufferSizeKeepsWhatWasWrittenAndReadAhead) {
    disk.fill(pattern(3 * BUFFER));
    CDiskFile file(owner, disk);
    EXPECT_TRUE(file.writeAll("changed"));
    EXPECT_EQ(0, file->SetBufferSize(BUFFER, 7));
    EXPECT_EQ("changed", disk.content().substr(0, 7));
    char byte = 0;
    bool eof = false;
    EXPECT_EQ(0, file->Read(&byte, 1, eof));
    EXPECT_EQ(0, file->SetBufferSize(BUFFER, 1));
    EXPECT_EQ(disk.content().substr(7), file.readAll(3 * BUFFER));
}

TEST_F(NFile, SetBufferSizeOfTheSameCountChangesNothing) {
    CDiskFile file(owner, disk);
    EXPECT_TRUE(file.writeAll("kept back"));
    EXPECT_EQ(0, file->SetBufferSize(77, 4));
    EXPECT_EQ(0, disk.count("write"));
}

TEST_F(NFile, SetBufferSizeOverAFailingDeviceKeepsTheBuffers) {
    CDiskFile file(owner, disk);
    EXPECT_TRUE(file.writeAll("text"));
    disk.failing_writes = 1;
    EXPECT_EQ(-1, file->SetBufferSize(BUFFER, 8));
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    EXPECT_EQ(0, file->SetBufferSize(BUFFER, 8));
    EXPECT_EQ("text", disk.content());
}

TEST_F(NFile, SetBufferSizeTakesNoAbsurdNumber) {
    CDiskFile file(owner, disk);
    EXPECT_EQ(-1, file->SetBufferSize(BUFFER, 65'537));
    EXPECT_EQ(-1, file->SetBufferSize(BUFFER, 0xFFFFFFFF));
    EXPECT_TRUE(file.writeAll("text"));
}

TEST_F(NFile, SetBufferSizeWithoutMemoryKeepsTheBuffers) {
    CDiskFile file(owner, disk);
    EXPECT_TRUE(file.writeAll("text"));
    {
        const CScarceMemory scarce(3);
        EXPECT_EQ(-1, file->SetBufferSize(BUFFER, 8));
    }
    file.close();
    EXPECT_EQ("text", disk.content());
}

TEST_F(NFile, ADeviceThatNeedsNoThreadsIsCalledAtOnce) {
    disk.needs_aio = false;
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, file->Write("hello", 5));
    EXPECT_EQ("hello", disk.content());
    EXPECT_EQ(0, file->Seek(-4, 1));
    EXPECT_EQ(1, disk.count("seek -4 1"));
    char text[10] = {};
    bool eof = false;
    EXPECT_EQ(4, file->Read(text, 10, eof));
    EXPECT_TRUE(eof);
    EXPECT_STREQ("ello", text);
    file.close();
    owner.settle();
    for (const unsigned type : {6U, 7U, 8U}) EXPECT_EQ(0, owner.count(type));
}

TEST_F(NFileDirect, WithoutFileThreadsTheDeviceIsCalledAtOnce) {
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, file->Write("hello", 5));
    EXPECT_EQ("hello", disk.content());
    EXPECT_EQ(0, file->SetBufferSize(BUFFER, 4));
    EXPECT_EQ(6, file->Write(" world", 6));
    EXPECT_EQ("hello world", disk.content());
}

TEST_F(NFileDirect, DirectCallsGoOnUntilAllIsDone) {
    disk.longest = 3;
    CDiskFile file(owner, disk);
    EXPECT_EQ(10, file->Write("0123456789", 10));
    EXPECT_EQ(4, disk.count("write"));
    file->Seek(0, 0);
    char text[11] = {};
    bool eof = true;
    EXPECT_EQ(10, file->Read(text, 10, eof));
    EXPECT_FALSE(eof);
    EXPECT_STREQ("0123456789", text);
}

TEST_F(NFileDirect, ADirectCallStopsAtAFailureWithMessage8) {
    disk.longest = 3;
    disk.bad_from = 6;
    CDiskFile file(owner, disk);
    EXPECT_EQ(6, file->Write("0123456789", 10));
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 1));
    disk.bad_from = -1;
    EXPECT_EQ(4, file->Write("6789", 4));
    file->Seek(0, 0);
    disk.failing_reads = 1;
    char text[11] = {};
    bool eof = true;
    EXPECT_EQ(0, file->Read(text, 10, eof));
    EXPECT_FALSE(eof);
    EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, 2));
    EXPECT_EQ(10, file->Read(text, 10, eof));
    EXPECT_STREQ("0123456789", text);
}

TEST_F(NFileDirect, ADirectWriteThatTakesNothingStopsWithoutAMessage) {
    disk.zero_writes = 1;
    CDiskFile file(owner, disk);
    EXPECT_EQ(0, file->Write("0123456789", 10));
    owner.settle();
    EXPECT_EQ(0, owner.count(NOTIFY_FILE_ERROR));
}

TEST_F(NFile, NullBuffersAndZeroLengthsAreAnsweredWithMessage8) {
    int expected = 0;
    for (const bool buffered : {true, false}) {
        SDisk fresh;
        fresh.needs_aio = buffered;
        CDiskFile file(owner, fresh);
        char byte = 'x';
        bool eof = true;
        EXPECT_EQ(0, file->Write(nullptr, 1));
        EXPECT_EQ(0, file->Write(&byte, 0));
        EXPECT_EQ(0, file->Read(nullptr, 1, eof));
        EXPECT_FALSE(eof);
        EXPECT_EQ(0, file->Read(&byte, 0, eof));
        expected += 4;
        EXPECT_TRUE(owner.waitFor(NOTIFY_FILE_ERROR, expected));
        owner.settle();
        EXPECT_EQ(expected, owner.count(NOTIFY_FILE_ERROR));
        EXPECT_EQ(0, fresh.count("write") + fresh.count("read"));
        EXPECT_EQ(1, file->Write(&byte, 1));  // nothing awaited, nothing lost
    }
}

TEST(NFileAndPools, ADirectFileThatBecomesBufferedGoesOnWhereItWas) {
    auto first = std::make_unique<CPublicPool>();
    CFileOwner owner;
    SDisk disk;
    CDiskFile file(owner, disk);
    EXPECT_EQ(5, file->Write("hello", 5));
    const CFilePool with_threads;
    EXPECT_EQ(0, file->SetBufferSize(BUFFER, 3));
    EXPECT_EQ(6, file->Write(" world", 6));
    EXPECT_EQ("hello", disk.content());
    disk.needs_aio = false;
    EXPECT_EQ(0, file->SetBufferSize(BUFFER, 3));
    EXPECT_EQ("hello world", disk.content());
    EXPECT_EQ(1, file->Write("!", 1));
    EXPECT_EQ("hello world!", disk.content());
    file.close();
    owner.close();
    first.reset();
}

TEST(NFileAndPools, FilesComeAndGoWithPools200Times) {
    for (unsigned turn = 0; turn < 200; ++turn) {
        EXPECT_EQ(0, CNetThread::CreateThreadPool(1, (turn & 1U) != 0));
        const int number = CNetThread::CreatePrivatePool(1, (turn & 2U) != 0);
        SDisk disks[2];
        {
            CFileOwner owner;
            CDiskFile first(owner, disks[0]);
            CDiskFile second(owner, disks[1]);
            const std::string text = pattern(BUFFER + 10, turn);
            EXPECT_TRUE(first.writeAll(text));
            EXPECT_TRUE(second.writeAll(text));
            if ((turn & 4U) != 0) {
                first.close();
            } else {
                second.close();
            }
            if ((turn & 8U) != 0) {
                EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
            }
        }
        if ((turn & 8U) == 0) {
            EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
        }
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        EXPECT_EQ(BUFFER + 10, disks[0].content().size());
        EXPECT_EQ(disks[0].content(), disks[1].content());
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
