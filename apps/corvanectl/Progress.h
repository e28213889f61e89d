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

    /// Shows something else instead, of which nobody knows how long it takes.
    void change(const std::string& what);

    /// Draws it as it stands now, as wide as the terminal is now.
    void draw();

private:
    std::string label;
    std::chrono::milliseconds length;
    Clock::time_point start;
    bool drawn = false;
};

}  // namespace corvanectl
