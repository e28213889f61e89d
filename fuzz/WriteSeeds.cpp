// Writes the seeds of each target to a folder of its own.
//
// Usage: corvane-fuzz-seeds FOLDER TARGET...

#include "Seeds.h"

#include <filesystem>
#include <fstream>

int main(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        const auto folder = std::filesystem::path(argv[1]) / argv[i];
        std::filesystem::create_directories(folder);
        for (const auto& [name, input] : corvane::fuzz::seeds(argv[i])) {
            std::ofstream(folder / name, std::ios_base::binary) << input;
        }
    }
}
