#pragma once

#include <cstdlib>
#include <string>

namespace corvane {

/// Runs a shell command line and waits for it. Its exit status says nothing of use: whether it
/// worked shows in what follows (a bus name, a sysfs path, an HCI flag).
inline void runShell(const std::string& commandLine) {
    [[maybe_unused]] const int status = std::system(commandLine.c_str());
}

}  // namespace corvane
