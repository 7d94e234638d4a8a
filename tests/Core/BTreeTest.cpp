#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Core/BTreeTestAccess.h"
#include "Support/ScarceMemory.h"

namespace Veltro::Ravelo {

namespace {

using TestSupport::CScarceMemory;

/// A table of plain entries that it owns.
class BTree : public testing::Test {
protected:
    SKeyedEntry* make(std::int64_t key) {
        m_entries.push_back(std::make_unique<SKeyedEntry>());
        m_entries.back()->key = key;
        return m_entries.back().get();
    }
    void insertAll(std::int64_t first, std::int64_t last) {
        for (std::int64_t key = first; key <= last; ++key) ASSERT_TRUE(m_tree.insert(make(key)));
    }
    SKeyedEntry* peek(std::int64_t key) {
        Plinth::CReadGuard guard(m_tree.lock());
        return m_tree.peekLocked(key);
    }
    std::string shape() const { return CBTreeTestAccess::shape(m_tree); }
    std::vector<std::int64_t> keys() const {
        std::vector<std::int64_t> found;
        Plinth::CReadGuard guard(m_tree.lock());
        m_tree.visit([&found](const SKeyedEntry* entry) {
            found.push_back(entry->key);
            return true;
        });
        return found;
    }
    /// The table that most erasure tests begin with: three leaves, all but the last minimal.
    void makeThreeLeaves() {
        insertAll(1, 12);
        ASSERT_EQ(shape(), "(4 8 (1 2 3) (5 6 7) (9 10 11 12))");
    }
    void eraseAll(std::initializer_list<std::int64_t> keys) {
        for (const std::int64_t key : keys) {
            SKeyedEntry* const entry = m_tree.erase(key);
            ASSERT_NE(entry, nullptr);
            ASSERT_EQ(entry->key, key);
        }
    }

    std::vector<std::unique_ptr<SKeyedEntry>> m_entries;
    CBTree m_tree;
};

TEST_F(BTree, StartsAsOneEmptyLeaf) {
    EXPECT_EQ(shape(), "()");
    EXPECT_EQ(peek(1), nullptr);
    EXPECT_EQ(m_tree.erase(1), nullptr);
    EXPECT_TRUE(keys().empty());
}

TEST_F(BTree, RootHoldsSevenKeysAndSplitsOnceTheEighthArrives) {
    insertAll(1, 7);
    EXPECT_EQ(shape(), "(1 2 3 4 5 6 7)");
    insertAll(8, 8);
    EXPECT_EQ(shape(), "(4 (1 2 3) (5 6 7 8))");
}

TEST_F(BTree, SplitLeavesTheUpperHalfInTheOldNode) {
    insertAll(1, 7);
    const void* const old_root = CBTreeTestAccess::root(m_tree);
    insertAll(8, 8);

    EXPECT_EQ(CBTreeTestAccess::lastChildOfRoot(m_tree), old_root);
}

TEST_F(BTree, DescendingInsertionsSplitTheLeftmostLeaf) {
    for (std::int64_t key = 12; key >= 1; --key) ASSERT_TRUE(m_tree.insert(make(key)));
    EXPECT_EQ(shape(), "(5 9 (1 2 3 4) (6 7 8) (10 11 12))");
}

TEST_F(BTree, FullInnerNodesAreSplitOnTheWayDown) {
    insertAll(1, 32);
    ASSERT_EQ(shape(),
              "(4 8 12 16 20 24 28 (1 2 3) (5 6 7) (9 10 11) (13 14 15)"
              " (17 18 19) (21 22 23) (25 26 27) (29 30 31 32))");
    insertAll(33, 33);
    EXPECT_EQ(shape(),
              "(16 (4 8 12 (1 2 3) (5 6 7) (9 10 11) (13 14 15))"
              " (20 24 28 (17 18 19) (21 22 23) (25 26 27) (29 30 31 32 33)))");
}

TEST_F(BTree, EqualKeysAreNotRejected) {
    insertAll(1, 3);
    SKeyedEntry* const second = make(2);
    ASSERT_TRUE(m_tree.insert(second));

    EXPECT_EQ(shape(), "(1 2 2 3)");
    EXPECT_EQ(peek(2), second) << "an equal key goes before the one in the leaf";
    EXPECT_EQ(m_tree.erase(2), second);
    EXPECT_EQ(m_tree.erase(2), m_entries[1].get());
    EXPECT_EQ(m_tree.erase(2), nullptr);
}

TEST_F(BTree, KeyEqualToOneOfAnInnerNodeGoesToItsRight) {
    insertAll(1, 8);
    insertAll(4, 4);
    EXPECT_EQ(shape(), "(4 (1 2 3) (4 5 6 7 8))");
}

TEST_F(BTree, ManyEqualKeysAllComeOutAgain) {
    insertAll(1, 20);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(m_tree.insert(make(10)));
    for (int i = 0; i < 101; ++i) {
        ASSERT_NE(m_tree.erase(10), nullptr);
        ASSERT_EQ(CBTreeTestAccess::fault(m_tree), "");
    }
    EXPECT_EQ(m_tree.erase(10), nullptr);
    EXPECT_EQ(keys().size(), 19U);
}

TEST_F(BTree, HoldsTheSmallestAndTheGreatestKey) {
    constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t greatest = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(peek(greatest), nullptr);
    ASSERT_TRUE(m_tree.insert(make(greatest)));
    insertAll(-10, 10);
    ASSERT_TRUE(m_tree.insert(make(smallest)));

    EXPECT_EQ(peek(greatest), m_entries.front().get());
    EXPECT_EQ(peek(smallest), m_entries.back().get());
    EXPECT_EQ(keys().front(), smallest);
    EXPECT_EQ(keys().back(), greatest);
    EXPECT_EQ(m_tree.erase(greatest), m_entries.front().get());
    EXPECT_EQ(m_tree.erase(smallest), m_entries.back().get());
    EXPECT_EQ(CBTreeTestAccess::fault(m_tree), "");
}

TEST_F(BTree, ErasureRotatesFromTheLeftSiblingFirst) {
    makeThreeLeaves();
    insertAll(0, 0);
    eraseAll({6});
    EXPECT_EQ(shape(), "(3 8 (0 1 2) (4 5 7) (9 10 11 12))");
}

TEST_F(BTree, ErasureRotatesFromTheRightSiblingWhenTheLeftHasNoneToSpare) {
    makeThreeLeaves();
    eraseAll({6});
    EXPECT_EQ(shape(), "(4 9 (1 2 3) (5 7 8) (10 11 12))");
}

TEST_F(BTree, ErasureMergesWithTheLeftSiblingWhenNeitherHasAnyToSpare) {
    makeThreeLeaves();
    eraseAll({12, 6});
    EXPECT_EQ(shape(), "(8 (1 2 3 4 5 7) (9 10 11))");
}

TEST_F(BTree, ErasureInTheFirstChildMergesWithTheRightSibling) {
    makeThreeLeaves();
    eraseAll({2});
    EXPECT_EQ(shape(), "(8 (1 3 4 5 6 7) (9 10 11 12))");
}

TEST_F(BTree, ErasingAKeyOfAnInnerNodePutsItsPredecessorInItsPlace) {
    makeThreeLeaves();
    insertAll(0, 0);
    eraseAll({4});
    EXPECT_EQ(shape(), "(3 8 (0 1 2) (5 6 7) (9 10 11 12))");
}

TEST_F(BTree, ErasingAKeyBetweenMinimalChildrenBringsItDownFirst) {
    makeThreeLeaves();
    eraseAll({4});
    EXPECT_EQ(shape(), "(8 (1 2 3 5 6 7) (9 10 11 12))");
}

TEST_F(BTree, ErasingAKeyRightOfAMinimalChildRotatesItDown) {
    makeThreeLeaves();
    eraseAll({8});
    EXPECT_EQ(shape(), "(4 9 (1 2 3) (5 6 7) (10 11 12))");
}

TEST_F(BTree, ErasingAKeyWhoseLeftChildMergesLeftwardsTakesThePredecessorFromTheMergedNode) {
    makeThreeLeaves();
    eraseAll({12, 8});
    EXPECT_EQ(shape(), "(7 (1 2 3 4 5 6) (9 10 11))");
}

TEST_F(BTree, MergingTheTwoMinimalChildrenOfAOneKeyRootLowersTheTree) {
    insertAll(1, 8);
    eraseAll({8});
    ASSERT_EQ(shape(), "(4 (1 2 3) (5 6 7))");
    eraseAll({6});
    EXPECT_EQ(shape(), "(1 2 3 4 5 7)");
}

TEST_F(BTree, ErasingTheOnlyKeyOfTheRootLowersTheTree) {
    insertAll(1, 8);
    eraseAll({8, 4});
    EXPECT_EQ(shape(), "(1 2 3 5 6 7)");
}

TEST_F(BTree, ErasureOfAMissingKeyReturnsNullAndKeepsTheOthers) {
    insertAll(1, 12);
    EXPECT_EQ(m_tree.erase(0), nullptr);
    EXPECT_EQ(m_tree.erase(13), nullptr);
    EXPECT_EQ(keys().size(), 12U);
    EXPECT_EQ(CBTreeTestAccess::fault(m_tree), "");
}

TEST_F(BTree, ErasureFreesNoEntry) {
    insertAll(1, 1);
    SKeyedEntry* const entry = m_tree.erase(1);
    ASSERT_EQ(entry, m_entries[0].get());
    EXPECT_EQ(entry->key, 1);
}

TEST_F(BTree, VisitGoesInKeyOrderAndStopsWhenTheVisitorSaysSo) {
    insertAll(-20, 20);
    std::vector<std::int64_t> seen;
    Plinth::CReadGuard guard(m_tree.lock());
    EXPECT_FALSE(m_tree.visit([&seen](const SKeyedEntry* entry) {
        seen.push_back(entry->key);
        return entry->key < -11;
    }));

    EXPECT_EQ(seen, (std::vector<std::int64_t>{-20, -19, -18, -17, -16, -15, -14, -13, -12, -11}));
    EXPECT_TRUE(m_tree.visit([](const SKeyedEntry*) { return true; }));
    EXPECT_EQ(m_tree.size(), 41U);
}

TEST_F(BTree, GatedVisitHidesARefusedEntryAndTheSubtreeToItsLeft) {
    makeThreeLeaves();
    const auto walk = [this](std::int64_t refused) {
        std::vector<std::int64_t> seen;
        Plinth::CReadGuard guard(m_tree.lock());
        m_tree.visitGated([refused](const SKeyedEntry* entry) { return entry->key != refused; },
                          [&seen](const SKeyedEntry* entry) { seen.push_back(entry->key); });
        return seen;
    };

    EXPECT_EQ(walk(0), (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(walk(4), (std::vector<std::int64_t>{5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(walk(8), (std::vector<std::int64_t>{1, 2, 3, 4, 9, 10, 11, 12}));
    EXPECT_EQ(walk(6), (std::vector<std::int64_t>{1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12}));
}

TEST_F(BTree, GatedVisitAsksTheGateBeforeItEntersTheSubtreeToTheLeft) {
    insertAll(1, 8);
    std::vector<std::int64_t> asked;
    Plinth::CReadGuard guard(m_tree.lock());
    m_tree.visitGated(
        [&asked](const SKeyedEntry* entry) {
            asked.push_back(entry->key);
            return true;
        },
        [](const SKeyedEntry*) {});

    EXPECT_EQ(asked, (std::vector<std::int64_t>{4, 1, 2, 3, 5, 6, 7, 8}));
}

TEST_F(BTree, InsertionWithoutMemoryFailsAndLeavesTheTableWhole) {
    insertAll(1, 7);
    for (int allocations : {0, 1}) {
        CScarceMemory scarce(allocations);
        EXPECT_FALSE(m_tree.insert(m_entries[0].get()));
    }
    EXPECT_EQ(shape(), "(1 2 3 4 5 6 7)");
    insertAll(8, 11);
    {
        CScarceMemory scarce(0);
        EXPECT_FALSE(m_tree.insert(m_entries[10].get()));
    }
    EXPECT_EQ(shape(), "(4 (1 2 3) (5 6 7 8 9 10 11))");
}

TEST_F(BTree, MadeWithoutMemoryIsEmptyUntilThereIsSome) {
    std::unique_ptr<CBTree> tree;
    {
        CScarceMemory scarce(0);
        tree = std::make_unique<CBTree>();
        EXPECT_FALSE(tree->insert(make(1)));
    }
    EXPECT_EQ(tree->find(1), nullptr);
    EXPECT_EQ(tree->erase(1), nullptr);
    EXPECT_TRUE(tree->insert(make(1)));
    EXPECT_EQ(CBTreeTestAccess::shape(*tree), "(1)");
}

TEST(BTreeLife, DestructionHandsBackEntriesWithKeysAboveZeroOnly) {
    static std::vector<std::int64_t> s_deleted;
    s_deleted.clear();
    std::vector<SKeyedEntry> entries(40);
    {
        CBTree tree(8, [](SKeyedEntry* entry) { s_deleted.push_back(entry->key); });
        for (std::size_t i = 0; i < entries.size(); ++i) {
            entries[i].key = static_cast<std::int64_t>(i) - 20;
            ASSERT_TRUE(tree.insert(&entries[i]));
        }
        ASSERT_EQ(tree.erase(7), &entries[27]);
    }
    std::sort(s_deleted.begin(), s_deleted.end());
    std::vector<std::int64_t> expected;
    for (std::int64_t key = 1; key < 20; ++key) {
        if (key != 7) expected.push_back(key);
    }
    EXPECT_EQ(s_deleted, expected);
}

/// A table of each order under a random mix of operations, beside a map.
class BTreeModel : public testing::TestWithParam<unsigned> {};

TEST_P(BTreeModel, AgreesWithAMapOverRandomOperations) {
    constexpr int operations = 200000;
    constexpr int key_count = 600;
    std::vector<SKeyedEntry> entries(key_count);
    for (int i = 0; i < key_count; ++i) entries[i].key = i - key_count / 2;
    std::mt19937 random(GetParam());
    CBTree tree(GetParam());
    std::map<std::int64_t, SKeyedEntry*> model;
    Plinth::CWriteGuard guard(tree.lock());

    for (int i = 0; i < operations; ++i) {
        SKeyedEntry& entry = entries[random() % key_count];
        const auto found = model.find(entry.key);
        SKeyedEntry* const expected = found == model.end() ? nullptr : found->second;
        ASSERT_EQ(tree.peekLocked(entry.key), expected);
        // The table grows for a while, then shrinks for a while.
        const bool growing = i / 5000 % 2 == 0;
        if (random() % 4 < (growing ? 3U : 1U)) {
            if (expected) continue;
            ASSERT_TRUE(tree.insertLocked(&entry));
            model[entry.key] = &entry;
        } else {
            ASSERT_EQ(tree.eraseLocked(entry.key), expected);
            model.erase(entry.key);
        }
        ASSERT_EQ(tree.size(), model.size());
        if (i % 16 == 0) {
            ASSERT_EQ(CBTreeTestAccess::fault(tree), "") << "after operation " << i;
        }
    }
    auto next = model.begin();
    EXPECT_TRUE(tree.visit([&next](const SKeyedEntry* entry) { return entry == (next++)->second; }));
    EXPECT_EQ(CBTreeTestAccess::fault(tree), "");
}

INSTANTIATE_TEST_SUITE_P(Orders, BTreeModel, testing::Values(4U, 5U, 6U, 7U, 8U));

// Lookups that keep what they find.

}  // namespace
}  // namespace Veltro::Ravelo
