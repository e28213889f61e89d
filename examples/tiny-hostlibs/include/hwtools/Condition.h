#pragma once

#include <condition_variable>
#include <mutex>

namespace hwtools {

class Condition {
public:
    explicit Condition(bool notified);
    int wait(unsigned milliseconds, bool reset);
    void notify();

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool notified;
};

}  // namespace hwtools
