#include "hwtools/Condition.h"

#include <climits>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

using hwtools::Condition;

TEST(Condition, TimesOutWithTheKernelsErrorAndNotEarly) {
    EXPECT_EQ(Condition::timedOut, ETIMEDOUT);
    Condition condition(false);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(condition.wait(50, false), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(condition.wait(0, false), ETIMEDOUT);
}

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
    std::atomic<int> waiting{0};
    std::array<std::chrono::steady_clock::time_point, 4> released;
    std::vector<std::thread> waiters;
    waiters.reserve(released.size());
    for (auto& end : released) {
        waiters.emplace_back([&] {
            ++waiting;
            condition.wait(600000, false);
            end = std::chrono::steady_clock::now();
        });
    }
    while (waiting < static_cast<int>(released.size())) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // for all to fall asleep
    const auto notified = std::chrono::steady_clock::now();
    condition.notify();
    for (std::thread& waiter : waiters) waiter.join();
    // A waiter left asleep would find the flag set at its timeout, so only the time shows it.
    for (const auto& end : released) EXPECT_LT(end - notified, std::chrono::minutes(5));
}
