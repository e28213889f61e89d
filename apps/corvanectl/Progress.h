#pragma once

#include <chrono>
#include <string>

namespace corvanectl {

/// A bar with the time left, on standard error, which has to be a terminal. Gone when destroyed.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// @param expected  how long it takes; 0 when nobody knows: shows the time gone
    Progress(std::string what, std::chrono::milliseconds expected)
        : label(std::move(what)), length(expected), start(Clock::now()) {}
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Draws it as it stands now, as wide as the terminal is now.
    void draw();

private:
    const std::string label;
    const std::chrono::milliseconds length;
    const Clock::time_point start;
    bool drawn = false;
};

}  // namespace corvanectl
