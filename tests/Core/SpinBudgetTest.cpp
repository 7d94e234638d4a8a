#include "Core/SpinBudget.h"

#include <gtest/gtest.h>

using Veltro::Ravelo::CSpinBudget;

TEST(SpinBudget, StartsWithoutLooking) {
    const CSpinBudget budget;
    EXPECT_EQ(0U, budget.budgetUs());
}

TEST(SpinBudget, AShortSleepMakesLookingWorthWhile) {
    CSpinBudget budget;
    budget.slept(CSpinBudget::MAX_US);
    EXPECT_EQ(CSpinBudget::MAX_US, budget.budgetUs());
}

TEST(SpinBudget, ALongSleepDoesNot) {
    CSpinBudget budget;
    budget.slept(CSpinBudget::MAX_US + 1);
    EXPECT_EQ(0U, budget.budgetUs());
}

TEST(SpinBudget, LooksInVainShrinkItToNothing) {
    CSpinBudget budget;
    budget.found();
    int looks = 0;
    for (std::uint64_t former_us = budget.budgetUs(); former_us > 0; ++looks) {
        budget.missed();
        EXPECT_LT(budget.budgetUs(), former_us);
        former_us = budget.budgetUs();
    }
    EXPECT_LT(looks, 10);
    budget.missed();
    EXPECT_EQ(0U, budget.budgetUs());
}

TEST(SpinBudget, AFindRestoresItWhole) {
    CSpinBudget budget;
    budget.found();
    budget.missed();
    budget.found();
    EXPECT_EQ(CSpinBudget::MAX_US, budget.budgetUs());
}
