#pragma once

#include "UniqueFd.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace board {

/// One emulated machine. Its serial lines are sockets of this process; it ends with this process.
class Machine {
public:
    struct Files {
        std::string kernel, deviceTree, initramfs;
    };

    /// Starts the emulator.
    /// @param name        for messages and file names
    /// @param folder      receives NAME-console.log and NAME-emulator.log
    /// @param commandLine the kernel's
    Machine(std::string name, const Files& files, const std::string& folder,
            const std::string& commandLine);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    UniqueFd radio;     ///< UART1: the Bluetooth controller's line
    UniqueFd commands;  ///< UART3: between the board and the machine with the remote devices
    UniqueFd agent;     ///< UART4: the agent's
    UniqueFd monitor;   ///< QMP

    /// Throws std::runtime_error if the emulator has ended or its kernel has panicked.
    void check() const;

    /// Returns the end of the console log and the emulator's messages.
    std::string lastWords() const;

    const std::string& name() const { return name_; }
    std::string consoleLog() const { return folder_ + "/" + name_ + "-console.log"; }

private:
    std::string emulatorLog() const { return folder_ + "/" + name_ + "-emulator.log"; }

    std::string name_;
    std::string folder_;
    mutable pid_t pid_ = -1;
};

}  // namespace board
