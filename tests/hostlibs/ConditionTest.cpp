#include "hwtools/Condition.h"

#include <climits>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <thread>

using hwtools::Condition;
using namespace std::chrono_literals;

TEST(Condition, StaysNotifiedUntilAWaitResetsIt) {
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
    const auto wait = [&] { condition.wait(600000, false); };
    const auto first = std::async(std::launch::async, wait);
    const auto second = std::async(std::launch::async, wait);
    std::this_thread::sleep_for(100ms);  // for both to fall asleep
    condition.notify();
    EXPECT_EQ(first.wait_for(5min), std::future_status::ready);
    EXPECT_EQ(second.wait_for(5min), std::future_status::ready);
}
