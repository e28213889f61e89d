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
                           static_cast<int>(record.GetProductFamily()), record.GetBoardRevision(),
                           record.GetSerialNumberString(false));
}

/// The same record in other words.
std::string retold(const eepromXML& record) {
    const auto& [valid, model, family, revision, serial] = fields(record);
    return "<?xml version=\"1.0\"?><!-- again --><identity>\n<serial><![CDATA[" + serial +
           "]]></serial><more><model>9</model></more><revision>" + std::to_string(revision) +
           "</revision><family>" + std::to_string(family) + "</family><model>" +
           std::to_string(model) + "</model></identity>";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool captured = (corvane::test::captureLog(), true);
    const std::string text(reinterpret_cast<const char*>(data), size);
    eepromXML record(text);
    const auto before = fields(record);
    const auto& [valid, model, family, revision, serial] = before;
    require(captured && valid == edges().log().empty(), "what is wrong is logged");

    constexpr int largest = 65535;
    constexpr std::size_t longest = 32;
    require(model >= 0 && model <= largest && family >= 0 && family <= largest &&
                revision <= largest && serial.size() <= longest,
            "numbers and serial are in range");
    require(!valid || (model > 0 && family > 0 && !serial.empty()), "a valid record is complete");
    // It becomes a part of the name that neighbours see.
    require(std::all_of(serial.begin(), serial.end(), [](char c) { return c >= ' ' && c <= '~'; }),
            "a serial number is printable");
    if (valid && serial.find("]]>") == std::string::npos) {
        require(fields(eepromXML(retold(record))) == before, "the order of elements is free");
    }
    record.AnalyseXML("");
    record.AnalyseXML(text);
    require(fields(record) == before, "an earlier text leaves nothing behind");
    edges().forget();
    return 0;
}
