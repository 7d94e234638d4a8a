// One buffer of a file.
#include "Tool/NFileBuf.h"

#include <gtest/gtest.h>

#include <string>

#include "Support/ScarceMemory.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// A buffer at a place of the file, taken.
struct SPlaced {
    CNFileBuf buffer;
    explicit SPlaced(std::int64_t offset, const std::string& text = {}) {
        EXPECT_TRUE(buffer.TryLock());
        EXPECT_TRUE(buffer.Malloc());
        buffer.Place(offset);
        bool full = false;
        if (!text.empty()) write(text, offset, full);
    }
    std::uint32_t write(const std::string& text, std::int64_t offset, bool& full) {
        return buffer.Write(text.data(), static_cast<std::uint32_t>(text.size()), full, offset);
    }
};

TEST(NFileBuf, IsFreeAndNobodysAtFirst) {
    CNFileBuf buffer;
    EXPECT_TRUE(buffer.IsFree());
    EXPECT_FALSE(buffer.IsDirty());
    EXPECT_EQ(CNFileBuf::SUBMIT_NONE, buffer.GetSubmitType());
    EXPECT_TRUE(buffer.TryLock());
}

TEST(NFileBuf, HasOneOwnerAtATime) {
    CNFileBuf buffer;
    EXPECT_TRUE(buffer.TryLock());
    EXPECT_FALSE(buffer.TryLock());
    buffer.UnLock();
    EXPECT_TRUE(buffer.TryLock());
}

TEST(NFileBuf, SubmitIsForTheOwner) {
    CNFileBuf buffer;
    EXPECT_DEATH(buffer.Submit(CNFileBuf::SUBMIT_WRITE_KEEP), "Assertion failed: m_busy == true");
}

TEST(NFileBuf, UnLockEndsTheSubmission) {
    CNFileBuf buffer;
    EXPECT_TRUE(buffer.TryLock());
    buffer.Submit(CNFileBuf::SUBMIT_WRITE_RELEASE);
    EXPECT_EQ(3U, buffer.GetSubmitType());
    EXPECT_FALSE(buffer.TryLock());
    buffer.UnLock();
    EXPECT_EQ(CNFileBuf::SUBMIT_NONE, buffer.GetSubmitType());
    EXPECT_TRUE(buffer.TryLock());
}

TEST(NFileBuf, WriteTakesBytesAndMakesItDirty) {
    SPlaced placed(1000);
    bool full = true;
    EXPECT_EQ(5U, placed.write("hello", 1000, full));
    EXPECT_FALSE(full);
    EXPECT_TRUE(placed.buffer.IsDirty());
    EXPECT_EQ(1005, placed.buffer.End());
}

TEST(NFileBuf, WriteInsideKeepsTheEnd) {
    SPlaced placed(0, "0123456789");
    bool full = false;
    EXPECT_EQ(2U, placed.write("ab", 3, full));
    EXPECT_EQ(10, placed.buffer.End());
    EXPECT_EQ("012ab56789", std::string(placed.buffer.Data(), 10));
}

TEST(NFileBuf, WriteTakesNoMoreThanFits) {
    SPlaced placed(0, std::string(CNFileBuf::SIZE - 3, 'x'));
    bool full = false;
    EXPECT_EQ(3U, placed.write("hello", CNFileBuf::SIZE - 3, full));
    EXPECT_TRUE(full);
    EXPECT_EQ(CNFileBuf::SIZE, placed.buffer.Length());
}

TEST(NFileBuf, WriteThatEndsAtTheEndIsFull) {
    SPlaced placed(0);
    bool full = false;
    EXPECT_EQ(CNFileBuf::SIZE, placed.write(std::string(CNFileBuf::SIZE, 'x'), 0, full));
    EXPECT_TRUE(full);
}

TEST(NFileBuf, WriteStopsAtTheLimit) {
    SPlaced placed(0, "0123456789");
    bool full = false;
    EXPECT_EQ(2U, placed.buffer.Write("abcde", 5, full, 10, 12));
    EXPECT_TRUE(full);
    EXPECT_EQ(0U, placed.buffer.Write("abcde", 5, full, 12, 12));
    EXPECT_TRUE(full);
}

TEST(NFileBuf, WriteOfNothingLeavesItClean) {
    SPlaced placed(0);
    bool full = false;
    EXPECT_EQ(0U, placed.buffer.Write("abc", 3, full, 0, 0));
    EXPECT_FALSE(placed.buffer.IsDirty());
}

TEST(NFileBuf, WriteBehindAGapBreaksAnAssertion) {
    SPlaced placed(0, "0123456789");
    bool full = false;
    EXPECT_DEATH(placed.write("x", 11, full),
                 "Assertion failed: \\(uint64_t\\)\\(file_offset - m_file_offset\\) <= m_buf_offset");
}

TEST(NFileBuf, WriteBeforeTheStartOrIntoAFreeBufferBreaksAnAssertion) {
    SPlaced placed(100);
    bool full = false;
    EXPECT_DEATH(placed.write("x", 99, full),
                 "Assertion failed: m_file_offset >= 0 && file_offset >= m_file_offset");
    placed.buffer.Reset();
    EXPECT_DEATH(placed.write("x", 0, full),
                 "Assertion failed: m_file_offset >= 0 && file_offset >= m_file_offset");
}

TEST(NFileBuf, ReadGivesWhatThereIs) {
    SPlaced placed(100, "0123456789");
    char text[20] = {};
    bool all = true;
    bool eof = true;
    EXPECT_EQ(4U, placed.buffer.Read(text, 4, all, eof, 102));
    EXPECT_STREQ("2345", text);
    EXPECT_FALSE(all);
    EXPECT_FALSE(eof);
    EXPECT_EQ(4U, placed.buffer.Read(text, 20, all, eof, 106));
    EXPECT_STREQ("6789", text);
    EXPECT_TRUE(all);
    EXPECT_FALSE(eof);
}

TEST(NFileBuf, ReadTellsTheFilesEndWithTheLastByteOnly) {
    SPlaced placed(0);
    placed.buffer.SubmitRead(CNFileBuf::SIZE);
    placed.buffer.Filled(10, true);
    char text[20] = {};
    bool all = false;
    bool eof = true;
    EXPECT_EQ(9U, placed.buffer.Read(text, 9, all, eof, 0));
    EXPECT_FALSE(eof);
    EXPECT_EQ(1U, placed.buffer.Read(text, 1, all, eof, 9));
    EXPECT_TRUE(all);
    EXPECT_TRUE(eof);
    EXPECT_EQ(0U, placed.buffer.Read(text, 1, all, eof, 10));
    EXPECT_TRUE(eof);
}

TEST(NFileBuf, ReadOutsideBreaksAnAssertion) {
    SPlaced placed(100, "0123456789");
    char text[20];
    bool all = false;
    bool eof = false;
    EXPECT_DEATH(placed.buffer.Read(text, 1, all, eof, 111),
                 "Assertion failed: \\(uint64_t\\)\\(file_offset - m_file_offset\\) <= m_buf_offset");
    EXPECT_DEATH(placed.buffer.Read(text, 1, all, eof, 99),
                 "Assertion failed: m_file_offset >= 0 && file_offset >= m_file_offset");
}

TEST(NFileBuf, ResetForgetsAllButTheMemory) {
    SPlaced placed(0, "text");
    const char* const memory = placed.buffer.Data();
    placed.buffer.SetEof(true);
    placed.buffer.Reset();
    EXPECT_TRUE(placed.buffer.IsFree());
    EXPECT_FALSE(placed.buffer.IsDirty());
    EXPECT_FALSE(placed.buffer.IsEof());
    EXPECT_EQ(0U, placed.buffer.Length());
    EXPECT_TRUE(placed.buffer.Malloc());
    EXPECT_EQ(memory, placed.buffer.Data());
}

TEST(NFileBuf, SpanIsWhatItHolds) {
    SPlaced placed(1000, "0123456789");
    EXPECT_EQ(1000, placed.buffer.GetSpan().begin);
    EXPECT_EQ(1010, placed.buffer.GetSpan().end);
    EXPECT_TRUE(placed.buffer.GetSpan().busy);
    placed.buffer.UnLock();
    EXPECT_FALSE(placed.buffer.GetSpan().busy);
}

TEST(NFileBuf, SpanIncludesAReadThatIsUnderWay) {
    SPlaced placed(1000);
    placed.buffer.SubmitRead(500);
    EXPECT_TRUE(placed.buffer.GetSpan().holds(1499));
    EXPECT_FALSE(placed.buffer.GetSpan().holds(1500));
    placed.buffer.Filled(10, true);
    EXPECT_FALSE(placed.buffer.GetSpan().holds(1010));
}

TEST(NFileBuf, AFreeBufferHoldsNothing) {
    CNFileBuf buffer;
    EXPECT_FALSE(buffer.GetSpan().holds(-1));
    EXPECT_FALSE(buffer.GetSpan().holds(0));
    EXPECT_FALSE(buffer.Covers(-1));
    EXPECT_FALSE(buffer.Covers(0));
}

TEST(NFileBuf, CoversItsWholeSize) {
    SPlaced placed(10);
    EXPECT_FALSE(placed.buffer.Covers(9));
    EXPECT_TRUE(placed.buffer.Covers(10));
    EXPECT_TRUE(placed.buffer.Covers(10 + CNFileBuf::SIZE - 1));
    EXPECT_FALSE(placed.buffer.Covers(10 + CNFileBuf::SIZE));
}

TEST(NFileBuf, WithoutMemoryItHasNone) {
    CNBufPool* pool = CNBufPool::join();
    std::vector<std::unique_ptr<SNBufBlock>> taken;
    while (pool->Size() > 0) taken.push_back(pool->Pop());
    CNFileBuf buffer;
    {
        const CScarceMemory scarce(0);
        EXPECT_FALSE(buffer.Malloc());
    }
    EXPECT_TRUE(buffer.Malloc());
    CNBufPool::leave();
}

TEST(NFileBuf, WithoutMemoryForThePoolItHasNoneEither) {
    const CScarceMemory scarce(0);
    CNFileBuf buffer;
    EXPECT_FALSE(buffer.Malloc());
}

}  // namespace
}  // namespace Veltro::Ravelo
