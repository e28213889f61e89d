#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace board {

/// A program that runs as a child. It ends with this object and with this process.
class Child {
public:
    /// Starts the program.
    /// @param arguments  its name, which is looked up in PATH, and its arguments
    /// @param endSignal  ends it
    /// @param prepare    called in the child before the program starts
    Child(const std::vector<std::string>& arguments, int endSignal,
          const std::function<void()>& prepare);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Returns the exit status, or 128 plus the signal that ended the program; nothing while it
    /// runs.
    std::optional<int> status();

    /// Sends the signal that ends the program.
    void end() const;

private:
    pid_t pid_;
    int endSignal_;
    std::optional<int> status_;
};

}  // namespace board
