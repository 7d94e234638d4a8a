#include "Tool/LiveList.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <vector>

#include "Support/Gate.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CRunner;

/// One that is counted.
struct SThing {
    struct SFigures {
        int done;
        void add(const SFigures& other) { done += other.done; }
    };
    SFigures figures() const { return {done}; }

    SThing(TLiveList<SThing>& list, int what) : done(what) { entry.enter(list, *this); }
    const int done;
    TLiveList<SThing>::CEntry entry;
};

using CList = TLiveList<SThing>;

int sumOf(const CList::SSnapshot& shot) {
    return std::accumulate(shot.living.begin(), shot.living.end(), shot.gone.done,
                           [](int sum, const SThing::SFigures& one) { return sum + one.done; });
}

TEST(LiveList, ShowsWhatLives) {
    CList list;
    EXPECT_TRUE(list.snapshot().living.empty());
    const SThing one(list, 1);
    const SThing two(list, 10);
    const CList::SSnapshot shot = list.snapshot();
    EXPECT_EQ(2U, shot.living.size());
    EXPECT_EQ(11, sumOf(shot));
    EXPECT_EQ(0U, shot.gone_count);
}

TEST(LiveList, AddsUpWhatHasGone) {
    CList list;
    {
        const SThing one(list, 1);
        const SThing two(list, 10);
    }
    const SThing three(list, 100);
    const CList::SSnapshot shot = list.snapshot();
    EXPECT_EQ(1U, shot.living.size());
    EXPECT_EQ(2U, shot.gone_count);
    EXPECT_EQ(11, shot.gone.done);
    EXPECT_EQ(111, sumOf(shot));
}

TEST(LiveList, WhatNeverEnteredIsNotMissed) {
    CList::CEntry entry;
}

TEST(LiveList, TheyMayGoInAnyOrder) {
    CList list;
    // Several in each part.
    std::vector<std::unique_ptr<SThing>> things;
    for (int i = 0; i < 5 * static_cast<int>(CList::PARTS); ++i) {
        things.push_back(std::make_unique<SThing>(list, 1));
    }
    const int all = static_cast<int>(things.size());
    for (std::size_t i = 0; i < things.size(); i += 3) things[i].reset();
    EXPECT_EQ(all, sumOf(list.snapshot()));
    for (std::size_t i = things.size(); i-- > 0;) things[i].reset();
    EXPECT_TRUE(list.snapshot().living.empty());
    EXPECT_EQ(all, sumOf(list.snapshot()));
}

TEST(LiveList, EachCountsOnceWhileTheyComeAndGo) {
    CList list;
    std::atomic<int> running{2};
    const auto comeAndGo = [&] {
        for (int i = 0; i < 20'000; ++i) {
            const SThing one(list, 1);
            const SThing two(list, 1);
        }
        --running;
    };
    CRunner one(comeAndGo);
    CRunner two(comeAndGo);
    int last = 0;
    int backwards = 0;
    while (running > 0) {
        const int sum = sumOf(list.snapshot());
        backwards += sum < last;
        last = sum;
    }
    one.join();
    two.join();
    EXPECT_EQ(0, backwards);
    EXPECT_EQ(80'000, sumOf(list.snapshot()));
    EXPECT_EQ(80'000U, list.snapshot().gone_count);
}

}  // namespace
}  // namespace Veltro::Ravelo
