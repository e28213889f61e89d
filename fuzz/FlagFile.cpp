// Input: the content of /tmp/bluetoothEnabled.

#include "Edges.h"
#include "Machine.h"

#include <limits>
#include <optional>
#include <stdexcept>

using corvane::fuzz::manager;
using corvane::fuzz::require;
using corvane::test::edges;
using corvane::test::Kind;

namespace {

enum class Reading { on, off, noNumber, outOfRange };

/// The setting by hand, to compare with: blanks, a sign, decimal digits; the rest does not count.
Reading read(const std::string& content) {
    const std::string text = content.substr(0, content.find('\0'));
    std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
    if (at == std::string::npos) return Reading::noNumber;
    const bool negative = text[at] == '-';
    if (negative || text[at] == '+') ++at;
    constexpr std::int64_t largest = std::numeric_limits<int>::max();
    std::int64_t number = 0;
    const std::size_t start = at;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        if (number <= largest + 1) number = number * 10 + (text[at] - '0');
    }
    if (at == start) return Reading::noNumber;
    if (number > largest + (negative ? 1 : 0)) return Reading::outOfRange;
    return number == 1 && !negative ? Reading::on : Reading::off;
}

template <class Call>
Reading outcomeOf(Call call) {
    try {
        return call() ? Reading::on : Reading::off;
    } catch (const std::invalid_argument&) {
        return Reading::noNumber;
    } catch (const std::out_of_range&) {
        return Reading::outOfRange;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    edges().busMissing = true;  // switching on ends where the radio's settings would begin
    const std::string content(reinterpret_cast<const char*>(data), size);
    const Reading expected = read(content);
    manager();
    edges().flagFile = content;
    require(outcomeOf([] { return manager().getEnabled(); }) == expected, "the setting");

    for (const bool enable : {false, true}) {
        edges().flagFile = content;
        edges().forget();
        const Reading outcome = outcomeOf([enable] {
            manager().setEnabled(enable, false);
            return edges().flagFile == "1";
        });
        bool acted = false;
        for (const auto& event : edges().events()) acted = acted || event.kind == Kind::SHELL;
        if (expected == Reading::noNumber || expected == Reading::outOfRange) {
            require(outcome == expected && !acted,
                    "a broken setting is told before anything is done");
        } else {
            const bool nothingToDo = (expected == Reading::on) == enable;
            require(acted != nothingToDo, "it acts when the setting is another");
            require(edges().flagFile == (nothingToDo ? content
                                         : enable    ? "1"
                                                     : "0"),
                    "the setting is kept");
        }
    }
    edges().forget();
    return 0;
}
