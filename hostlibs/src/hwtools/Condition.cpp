#include "hwtools/Condition.h"

#include <chrono>

namespace hwtools {

Condition::Condition(bool initially) : notified(initially) {}

int Condition::wait(unsigned milliseconds, bool reset) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    std::unique_lock lock(mutex);
    if (reset) notified = false;
    return changed.wait_until(lock, deadline, [this] { return notified; }) ? 0 : timedOut;
}

void Condition::notify() {
    // Notify under the lock: a waiter may destroy this object as soon as it wakes up.
    const std::lock_guard lock(mutex);
    notified = true;
    changed.notify_all();
}

}  // namespace hwtools
