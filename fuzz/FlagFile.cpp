// Input: the content of /tmp/bluetoothEnabled.

#include "Edges.h"
#include "Machine.h"

#include <algorithm>
#include <exception>
#include <typeinfo>

using corvane::fuzz::manager;
using corvane::fuzz::require;
using corvane::test::edges;
using corvane::test::Kind;

namespace {

/// "on", "off" or the error.
template <class Call>
std::string outcomeOf(Call call) {
    try {
        return call() ? "on" : "off";
    } catch (const std::exception& error) {
        return typeid(error).name();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    edges().busMissing = true;  // switching on stops before the radio's settings
    const std::string content(reinterpret_cast<const char*>(data), size);
    manager();
    edges().flagFile = content;
    const std::string setting = outcomeOf([] { return manager().getEnabled(); });
    require(setting != "on" || content.find('1') != std::string::npos, "only 1 means on");

    for (const bool enable : {false, true}) {
        edges().flagFile = content;
        edges().forget();
        const std::string outcome = outcomeOf([enable] {
            manager().setEnabled(enable, false);
            return manager().getEnabled();
        });
        const auto events = edges().events();
        const bool acted = std::any_of(events.begin(), events.end(),
                                       [](const auto& event) { return event.kind == Kind::SHELL; });
        const std::string wanted = enable ? "on" : "off";
        const bool broken = setting != "on" && setting != "off";
        require(outcome == (broken ? setting : wanted), "it is then set, or the same error");
        require(acted == (!broken && setting != wanted), "it acts only to change the setting");
        require(edges().flagFile == (acted ? (enable ? "1" : "0") : content),
                "the file changes only with the setting");
    }
    edges().forget();
    return 0;
}
