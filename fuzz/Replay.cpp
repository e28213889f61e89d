// Runs a target over its seeds without a fuzzer, for the board. A finding ends the process; the
// last line on standard error names the seed.

#include "Seeds.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

TEST(Replay, EverySeedIsHandled) {
    const auto seeds = corvane::fuzz::seeds(CORVANE_TARGET);
    ASSERT_FALSE(seeds.empty());
    for (const auto& [name, input] : seeds) {
        std::fprintf(stderr, "%s\n", name.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
}
