#pragma once

#include <cstdlib>
#include <string>

namespace corvane {

/// Runs a shell command line and waits for it. Its exit status says nothing of use: whether it
/// worked shows in what follows (a bus name, a sysfs path, an HCI flag).
inline void runShell(const std::string& commandLine) {
    [[maybe_unused]] const int status = std::system(commandLine.c_str());
}

/// A text as one word of a shell command line, whatever it holds.
inline std::string quoted(const std::string& text) {
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') word += "'\\'";
        word += c;
    }
    return word + "'";
}

}  // namespace corvane
