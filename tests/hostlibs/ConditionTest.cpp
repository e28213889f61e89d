#include "hwtools/Condition.h"

#include <climits>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

TEST(Condition, StaysNotifiedUntilAWaitResetsIt) {
    hwtools::Condition condition(true);
    EXPECT_EQ(condition.wait(UINT_MAX, false), 0);
    EXPECT_EQ(condition.wait(0, false), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(condition.wait(100, true), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    condition.notify();
    EXPECT_EQ(condition.wait(0, false), 0);
}
