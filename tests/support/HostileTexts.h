#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

namespace corvane::test {

/// Reads the texts in a folder of tests/hostile, by name: what a stranger may put into a device's
/// name or modalias, byte for byte.
inline std::map<std::string, std::string> hostileTexts(const std::string& folder) {
    std::map<std::string, std::string> texts;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::path(CORVANE_HOSTILE) / folder)) {
        std::ifstream file(entry.path(), std::ios_base::binary);
        texts[entry.path().filename()].assign(std::istreambuf_iterator<char>(file), {});
    }
    return texts;
}

}  // namespace corvane::test
