// Runs a target over its corpus, without a fuzzer: for machines that have none, the board above
// all. A finding ends the process; the last line on standard error names the input.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

class Corpus : public testing::Test {
public:
    void TestBody() override {
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(CORVANE_CORPUS)) files.push_back(entry);
        std::sort(files.begin(), files.end());
        ASSERT_FALSE(files.empty());
        for (const fs::path& path : files) {
            std::fprintf(stderr, "%s\n", path.c_str());
            std::ifstream file(path, std::ios_base::binary);
            const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                   bytes.size());
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::RegisterTest("Corpus", CORVANE_TARGET, nullptr, nullptr, __FILE__, __LINE__,
                          []() -> testing::Test* { return new Corpus; });
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    return RUN_ALL_TESTS();
}
