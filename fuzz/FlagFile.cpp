// Input: the content of /tmp/bluetoothEnabled.

#include "Edges.h"
#include "Machine.h"

#include <optional>
#include <stdexcept>

using corvane::fuzz::manager;
using corvane::fuzz::require;
using corvane::test::edges;

namespace {

/// Nothing if the file holds no number.
std::optional<bool> setting() {
    try {
        return manager().getEnabled();
    } catch (const std::logic_error&) {
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    edges().busMissing = true;  // switching on stops before the radio's settings
    const std::string content(reinterpret_cast<const char*>(data), size);
    manager();
    for (const bool enable : {false, true}) {
        edges().flagFile = content;
        const auto before = setting();
        require(before != true || content.find('1') != std::string::npos, "only 1 means on");
        bool failed = false;
        try {
            manager().setEnabled(enable, false);
        } catch (const std::logic_error&) {
            failed = true;
        }
        require(failed == !before.has_value(), "a broken file is reported");
        require(failed || setting() == enable, "the setting is then as asked for");
        const bool changes = before.has_value() && before != enable;
        require(edges().flagFile == (changes ? (enable ? "1" : "0") : content),
                "the file changes only with the setting");
    }
    edges().forget();
    return 0;
}
