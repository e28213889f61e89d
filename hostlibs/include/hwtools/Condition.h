#pragma once

#include <condition_variable>
#include <mutex>

namespace hwtools {

/// A flag that threads can wait for. Once notified it stays notified, so a notification is never
/// lost between a check and a wait, and it releases every waiter.
///
/// What libCorvane relies on: wait() returns timedOut (110) exactly when the time passed without a
/// notification, and notify() may be called from any thread.
class Condition {
public:
    /// What wait() returns when the time passed: ETIMEDOUT of the Linux kernel (errno.h), 110.
    static constexpr int timedOut = 110;

    /// @param notified  the state to start with
    explicit Condition(bool notified);

    /// Sleeps until the flag is set or the time has passed, measured on the steady clock.
    /// @param milliseconds  the longest wait; 0 only looks
    /// @param reset         true: forget an earlier notification before waiting; false: an earlier
    /// one ends the wait
    /// @return 0 when notified, timedOut otherwise
    int wait(unsigned milliseconds, bool reset);

    /// Sets the flag and wakes every waiter.
    void notify();

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool notified;
};

}  // namespace hwtools
