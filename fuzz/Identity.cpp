// Input: the board's identity as the hardware service reports it.

#include "Edges.h"
#include "Machine.h"
#include "eepromXML.h"

#include <algorithm>
#include <tuple>

using corvane::fuzz::require;
using corvane::test::edges;

namespace {

auto fields(const eepromXML& record) {
    return std::make_tuple(record.IsValid(), static_cast<int>(record.GetModelType()),
                           record.GetProductFamily(), static_cast<int>(record.GetBoardRevision()),
                           record.GetSerialNumberString(false));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool captured = (corvane::test::captureLog(), true);
    const std::string text(reinterpret_cast<const char*>(data), size);
    eepromXML record(text);
    const auto before = fields(record);
    const auto& [valid, model, family, revision, serial] = before;
    require(captured && valid == edges().log().empty(), "what is wrong is logged");
    for (const int number : {model, family, revision}) {
        require(number >= 0 && number <= 65535, "numbers are in range");
    }
    require(!valid || (model > 0 && family > 0 && !serial.empty()), "a valid record is complete");
    // It becomes a part of the name that neighbours see.
    require(serial.size() <= 32 && std::all_of(serial.begin(), serial.end(),
                                               [](char c) { return c >= ' ' && c <= '~'; }),
            "a serial number is short and printable");
    record.AnalyseXML("");
    record.AnalyseXML(text);
    require(fields(record) == before, "an earlier text leaves nothing behind");
    edges().forget();
    return 0;
}
