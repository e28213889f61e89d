#pragma once

#include "Child.h"
#include "UniqueFd.h"

#include <optional>
#include <string>

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
    /// @param card        the emulator's -nic argument
    Machine(std::string name, const Files& files, const std::string& folder,
            const std::string& commandLine, const std::string& card);

    UniqueFd radio;     ///< UART1: the Bluetooth controller's line
    UniqueFd commands;  ///< UART3: between the board and the machine with the remote devices
    UniqueFd monitor;   ///< QMP

    /// Throws std::runtime_error if the emulator has ended or its kernel has panicked.
    void check();

    /// Whether the machine has come up.
    bool isUp() const;

    /// Returns the end of the console log and the emulator's messages.
    std::string lastWords() const;

    std::string consoleLog() const { return folder_ + "/" + name_ + "-console.log"; }

private:
    std::string emulatorLog() const { return folder_ + "/" + name_ + "-emulator.log"; }

    std::string name_;
    std::string folder_;
    std::optional<Child> emulator_;
};

}  // namespace board
