#include "eepromXML.h"

#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>
#include <tinyxml2.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>

namespace {

struct ModelName {
    ModelType type;
    const char* name;  // no single quotes, so that it can be quoted for a shell
};

constexpr std::array<ModelName, 6> modelNames{{{MODEL_C100, "Corvane C100"},
                                               {MODEL_C200, "Corvane C200"},
                                               {MODEL_C300, "Corvane C300"},
                                               {MODEL_C400, "Corvane C400"},
                                               {MODEL_C500, "Corvane C500"},
                                               {MODEL_C600, "Corvane C600"}}};
constexpr char unnamedModel[] = "Corvane";

constexpr std::size_t maxTextSize = 64UL * 1024UL;  // bytes; a record has a few hundred
constexpr std::size_t maxSerialNumber = 32;         // characters; part of the Bluetooth name
constexpr std::size_t serialNumberGroup = 4;
constexpr int maxNumber = 65535;  // the record's numbers have 16 bits

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

void logError(const std::string& text) {
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Board identity: " << text);
}

/// Returns the text of the root's child; nothing, with the reason in the log, if the child is
/// missing, occurs twice or holds anything but text.
std::optional<std::string_view> textOf(const tinyxml2::XMLElement& root, const char* name) {
    const tinyxml2::XMLElement* const element = root.FirstChildElement(name);
    if (element == nullptr) {
        logError(std::string("<") + name + "> is missing");
        return std::nullopt;
    }
    if (element->NextSiblingElement(name) != nullptr) {
        logError(std::string("<") + name + "> occurs more than once; keep only one");
        return std::nullopt;
    }
    const tinyxml2::XMLNode* const child = element->FirstChild();
    if (child == nullptr || child->ToText() == nullptr || child->NextSibling() != nullptr) {
        logError(std::string("<") + name + "> must contain only text");
        return std::nullopt;
    }
    return trimmed(child->Value());
}

std::optional<int> numberOf(const tinyxml2::XMLElement& root, const char* name, int smallest) {
    const std::optional<std::string_view> text = textOf(root, name);
    if (!text) return std::nullopt;
    int number = 0;
    const char* const end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, number);
    if (error != std::errc() || stop != end || number < smallest || number > maxNumber) {
        logError(std::string("<") + name + "> must be a decimal number from " +
                 std::to_string(smallest) + " to " + std::to_string(maxNumber));
        return std::nullopt;
    }
    return number;
}

std::optional<std::string> serialNumberOf(const tinyxml2::XMLElement& root, const char* name) {
    const std::optional<std::string_view> text = textOf(root, name);
    if (!text) return std::nullopt;
    const bool printable =
        std::all_of(text->begin(), text->end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (text->empty() || text->size() > maxSerialNumber || !printable) {
        logError(std::string("<") + name + "> must be 1 to " + std::to_string(maxSerialNumber) +
                 " printable ASCII characters");
        return std::nullopt;
    }
    return std::string(*text);
}

/// Parses the text.
/// @return the element <identity>; null, with the reason in the log, if the text is invalid
const tinyxml2::XMLElement* parse(tinyxml2::XMLDocument& document, const std::string& text) {
    if (text.empty()) {
        logError("none received; is the hardware service running?");
        return nullptr;
    }
    if (text.size() > maxTextSize) {
        logError("the text has more than " + std::to_string(maxTextSize) + " bytes");
        return nullptr;
    }
    // Either could end a parsed string early, so that half a value would look complete.
    if (text.find('\0') != std::string::npos || text.find("&#") != std::string::npos) {
        logError("the text must not contain zero bytes or character references");
        return nullptr;
    }
    if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) {
        logError(std::string("the text is not XML: ") + document.ErrorName() + " in line " +
                 std::to_string(document.ErrorLineNum()));
        return nullptr;
    }
    for (const tinyxml2::XMLNode* node = document.FirstChild(); node != nullptr;
         node = node->NextSibling()) {
        if (node->ToUnknown() != nullptr) {
            logError("the text must not contain a document type");
            return nullptr;
        }
    }
    const tinyxml2::XMLElement* const root = document.RootElement();
    if (root == nullptr || std::string_view(root->Name()) != "identity" ||
        root->NextSiblingElement() != nullptr) {
        logError("the text must have one top-level element <identity>");
        return nullptr;
    }
    return root;
}

}  // namespace

std::string GetModelNameStringExternal(ModelType modelType) {
    const auto* const row =
        std::find_if(modelNames.begin(), modelNames.end(),
                     [modelType](const ModelName& model) { return model.type == modelType; });
    return row == modelNames.end() ? unnamedModel : row->name;
}

eepromXML::eepromXML(const std::string& text) { valid = AnalyseXML(text); }

bool eepromXML::AnalyseXML(std::string text) {
    std::optional<int> model;
    std::optional<int> family;
    std::optional<int> revision;
    std::optional<std::string> serial;
    tinyxml2::XMLDocument document;
    if (const tinyxml2::XMLElement* const root = parse(document, text)) {
        model = numberOf(*root, "model", 1);
        family = numberOf(*root, "family", 1);
        revision = numberOf(*root, "revision", 0);
        serial = serialNumberOf(*root, "serial");
    }
    modelType = static_cast<ModelType>(model.value_or(MODEL_UNKNOWN));
    productFamily = family.value_or(0);
    boardRevision = static_cast<unsigned>(revision.value_or(0));
    serialNumber = serial.value_or("");
    valid = model && family && revision && serial;
    return valid;
}

std::string eepromXML::GetSerialNumberString(bool grouped) const {
    if (!grouped) return serialNumber;
    std::string label;
    for (std::size_t i = 0; i < serialNumber.size(); ++i) {
        if (i != 0 && i % serialNumberGroup == 0) label += '-';
        label += serialNumber[i];
    }
    return label;
}
