#pragma once

#include <cstdlib>
#include <string>

namespace corvane {

/// Runs a shell command line and waits for its end. The exit status is ignored: success shows in a
/// bus name, a sysfs path or an HCI flag later.
inline void runShell(const std::string& commandLine) {
    [[maybe_unused]] const int status = std::system(commandLine.c_str());
}

/// Quotes any text as one shell word.
inline std::string quoted(const std::string& text) {
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') word += "'\\'";
        word += c;
    }
    return word + "'";
}

}  // namespace corvane
