// Input: the text of a modalias.

#include "Machine.h"

#include <array>
#include <cstdio>

using corvane::fuzz::manager;
using corvane::fuzz::require;

namespace {

std::array<unsigned, 3> idsOf(const std::string& text) {
    const ModaliasIds ids = manager().parseModalias(text);
    return {ids.vendorId, ids.productId, ids.versionId};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::array<unsigned, 3> none{};
    const auto ids = idsOf(std::string(reinterpret_cast<const char*>(data), size));
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "usb:v%04Xp%04Xd%04X", ids[0], ids[1], ids[2]);
    const std::string usual = text.data();
    require(idsOf(usual) == ids, "the ids read the same in their usual form");
    for (const char last : {'v', 'p', 'd'}) {
        require(idsOf(usual.substr(0, usual.find(last, 4) + 1)) == none, "all three ids or none");
    }
    return 0;
}
