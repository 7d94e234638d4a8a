#include "R3/R3Session.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Veltro::Ravelo {
namespace {

using Chunks = std::vector<std::string>;

class R3Session : public testing::Test {
protected:
    /// Lets the sender take chunks; the one of a number fails.
    void connect(int failing = -1) {
        m_session.setSender([this, failing](const char* bytes, unsigned length) {
            if (static_cast<int>(chunks.size()) == failing) return -1;
            chunks.emplace_back(bytes, length);
            return static_cast<int>(length);
        });
    }
    int output(const std::string& text) { return m_session.output(text.c_str()); }
    std::string stream() const {
        std::string all;
        for (const std::string& chunk : chunks) all += chunk;
        return all;
    }

    Chunks chunks;

private:
    CR3Session m_session;
};

TEST_F(R3Session, PutsATextAsItIs) {
    connect();
    EXPECT_EQ(output("text"), 4);
    EXPECT_EQ(chunks, Chunks{"text"});
}

TEST_F(R3Session, IgnoresAnEmptyText) {
    connect();
    EXPECT_EQ(output(""), 0);
    EXPECT_TRUE(chunks.empty());
}

TEST_F(R3Session, MakesAPairOfEveryLineFeedAndEveryCarriageReturn) {
    connect();
    EXPECT_EQ(output("a\nb\rc\r\nd"), 12);
    EXPECT_EQ(chunks, Chunks{"a\r\nb\r\nc\r\n\r\nd"});
}

TEST_F(R3Session, SendsNothingWithoutASender) {
    EXPECT_EQ(output("text\n"), 0);
}

TEST_F(R3Session, CutsALongTextIntoChunks) {
    connect();
    const std::string text(10'000, 'x');
    EXPECT_EQ(output(text), 10'000 - 2 * 4096);
    ASSERT_EQ(chunks.size(), 3U);
    EXPECT_EQ(chunks[0].size(), 4096U);
    EXPECT_EQ(chunks[1].size(), 4096U);
    EXPECT_EQ(stream(), text);
}

TEST_F(R3Session, ATextOfExactlyOneChunkIsPutOnce) {
    connect();
    EXPECT_EQ(output(std::string(4096, 'x')), 4096);
    EXPECT_EQ(chunks.size(), 1U);
}

TEST_F(R3Session, APairMayBeParted) {
    connect();
    EXPECT_EQ(output(std::string(4095, 'x') + "\ny"), 2);
    ASSERT_EQ(chunks.size(), 2U);
    EXPECT_EQ(chunks[0], std::string(4095, 'x') + "\r");
    EXPECT_EQ(chunks[1], "\ny");
}

TEST_F(R3Session, NoChunkIsEverLongerThanStated) {
    connect();
    std::string expected;
    for (int i = 0; i < 9'000; ++i) expected += "\r\n";
    output(std::string(9'000, '\n'));
    EXPECT_EQ(stream(), expected);
    for (const std::string& chunk : chunks) EXPECT_LE(chunk.size(), 4096U);
}

TEST_F(R3Session, AFailedPutEndsTheCall) {
    connect(1);
    EXPECT_EQ(output(std::string(20'000, 'x')), -1);
    EXPECT_EQ(chunks.size(), 1U);
}

TEST_F(R3Session, AFailedLastPutIsTheResult) {
    connect(0);
    EXPECT_EQ(output("x"), -1);
    EXPECT_TRUE(chunks.empty());
}

TEST_F(R3Session, AfterAFailureTheNextTextStartsAfresh) {
    connect(1);
    output(std::string(5'000, 'x'));
    connect();
    EXPECT_EQ(output("y"), 1);
    EXPECT_EQ(chunks.back(), "y");
}

}  // namespace
}  // namespace Veltro::Ravelo
