#pragma once

#include <condition_variable>
#include <mutex>

namespace hwtools {

/// A flag that threads can wait for. It stays set, so no notification is lost between a check and a
/// wait, and it releases every waiter.
///
/// libCorvane relies on this: wait() returns timedOut (110) if and only if the time passed without
/// a notification; any thread may call notify().
class Condition {
public:
    /// The result of wait() when the time passed: the Linux kernel's ETIMEDOUT (errno.h).
    static constexpr int timedOut = 110;

    /// Builds a flag.
    /// @param notified  its initial state
    explicit Condition(bool notified);

    /// Waits until the flag is set or the time has passed on the steady clock.
    /// @param milliseconds  the longest wait; 0 checks without waiting
    /// @param reset         true to clear the flag first, so that only a new notification counts
    /// @return 0 if notified, otherwise timedOut
    int wait(unsigned milliseconds, bool reset);

    /// Sets the flag and wakes every waiter.
    void notify();

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool notified;
};

}  // namespace hwtools
