#include "hwtools/Condition.h"

#include <climits>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

using hwtools::Condition;

TEST(Condition, TimesOutWithTheKernelsNumberAndNotBefore) {
    EXPECT_EQ(Condition::timedOut, ETIMEDOUT);
    Condition condition(false);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(condition.wait(50, false), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(condition.wait(0, false), ETIMEDOUT);
}

TEST(Condition, StaysNotifiedUntilAWaitForgetsIt) {
    Condition condition(true);
    EXPECT_EQ(condition.wait(UINT_MAX, false), 0);
    EXPECT_EQ(condition.wait(0, false), 0);
    EXPECT_EQ(condition.wait(1, true), ETIMEDOUT);
    EXPECT_EQ(condition.wait(0, false), ETIMEDOUT);
    condition.notify();
    EXPECT_EQ(condition.wait(0, false), 0);
}

TEST(Condition, ReleasesEveryWaiter) {
    Condition condition(false);
    int results[2] = {-1, -1};
    std::thread first([&] { results[0] = condition.wait(5000, false); });
    std::thread second([&] { results[1] = condition.wait(5000, false); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // for the waits to begin
    condition.notify();
    first.join();
    second.join();
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], 0);
}
