#pragma once

#include "Child.h"
#include "UniqueFd.h"

#include <optional>
#include <string>
#include <vector>

namespace board {

/// Runs commands on the board through ssh, one at a time.
class SecureShell {
public:
    /// @param key  the private key that the board accepts
    /// @param log  file for ssh's own messages
    SecureShell(std::string key, std::string log);

    /// Returns the emulator's -nic argument.
    std::string card() const;

    /// Starts a command. It gets this process's input and output.
    /// @param terminal  give it a terminal
    /// @param output    file for its standard output instead; its messages are dropped then
    void start(const std::vector<std::string>& command, bool terminal,
               const std::string& output = {});

    /// Returns the command's exit status; nothing while it runs.
    /// @throws std::runtime_error if ssh itself failed
    std::optional<int> status();

    /// Ends the command's ssh.
    void end() const { ssh_->end(); }

private:
    UniqueFd reserved_;
    std::string port_;
    std::string key_, log_;
    std::optional<Child> ssh_;
};

}  // namespace board
