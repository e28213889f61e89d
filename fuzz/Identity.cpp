// Input: the text that the hardware service gives out as the board's identity.

#include "Edges.h"
#include "Machine.h"
#include "eepromXML.h"

#include <algorithm>
#include <cstdint>

using corvane::fuzz::require;

namespace {

bool same(const eepromXML& a, const eepromXML& b) {
    return a.IsValid() == b.IsValid() && a.GetModelType() == b.GetModelType() &&
           a.GetProductFamily() == b.GetProductFamily() &&
           a.GetBoardRevision() == b.GetBoardRevision() &&
           a.GetSerialNumberString(false) == b.GetSerialNumberString(false);
}

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '&') {
            result += "&amp;";
        } else if (c == '<') {
            result += "&lt;";
        } else {
            result += c;
        }
    }
    return result;
}

/// The record, told in another way.
std::string told(const eepromXML& record) {
    return "<?xml version=\"1.0\"?><!-- once more --><identity>\n<serial> " +
           escaped(record.GetSerialNumberString(false)) +
           "\n</serial><more><model>9</model></more>" + "<revision>" +
           std::to_string(record.GetBoardRevision()) + "</revision><family>" +
           std::to_string(record.GetProductFamily()) + "</family><model>" +
           std::to_string(record.GetModelType()) + "</model></identity>";
}

void requireInRange(const eepromXML& record) {
    constexpr int largest = 65535;
    constexpr std::size_t longest = 32;
    const std::string serial = record.GetSerialNumberString(false);
    const int model = record.GetModelType();
    const int family = record.GetProductFamily();
    require(model >= 0 && model <= largest && family >= 0 && family <= largest &&
                record.GetBoardRevision() <= largest && serial.size() <= longest,
            "what is read is in its range");
    // It goes into a name that others see.
    require(std::all_of(serial.begin(), serial.end(), [](char c) { return c >= ' ' && c <= '~'; }),
            "a serial number prints");
    require(!record.IsValid() || (model > 0 && family > 0 && !serial.empty()),
            "a valid record is complete");
    std::string label = record.GetSerialNumberString(true);
    require(label.size() == serial.size() + (serial.empty() ? 0 : (serial.size() - 1) / 4),
            "the label has a dash for each four characters");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    corvane::test::captureLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    eepromXML record(text);
    requireInRange(record);
    require(record.IsValid() == corvane::test::edges().log().empty(), "what is wrong is logged");
    if (record.IsValid()) require(same(record, eepromXML(told(record))), "it reads as it is told");
    const eepromXML before = record;
    record.AnalyseXML("");
    record.AnalyseXML(text);
    require(same(record, before), "nothing is left of the text before");
    corvane::test::edges().forget();
    return 0;
}
