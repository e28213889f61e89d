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
    const char* name;  // without single quotes: it is put between such on a shell's command line
};

constexpr std::array<ModelName, 6> modelNames{{{MODEL_C100, "Corvane C100"},
                                               {MODEL_C200, "Corvane C200"},
                                               {MODEL_C300, "Corvane C300"},
                                               {MODEL_C400, "Corvane C400"},
                                               {MODEL_C500, "Corvane C500"},
                                               {MODEL_C600, "Corvane C600"}}};
constexpr char unnamedModel[] = "Corvane";

constexpr std::size_t maxTextSize = 64UL * 1024UL;  // bytes; a record has some hundred
constexpr std::size_t maxSerialNumber = 32;  // characters; it is a part of the Bluetooth name
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

/// The text of the root's child of this name; nothing, and logged, when the child is missing,
/// doubled or holds anything but text.
std::optional<std::string_view> textOf(const tinyxml2::XMLElement& root, const char* name) {
    const tinyxml2::XMLElement* const element = root.FirstChildElement(name);
    if (element == nullptr) {
        logError(std::string("<") + name + "> is missing");
        return std::nullopt;
    }
    if (element->NextSiblingElement(name) != nullptr) {
        logError(std::string("<") + name + "> is there more than once; one of them must go");
        return std::nullopt;
    }
    const tinyxml2::XMLNode* const child = element->FirstChild();
    if (child == nullptr || child->ToText() == nullptr || child->NextSibling() != nullptr) {
        logError(std::string("<") + name + "> must hold text and nothing else");
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

/// Parses the text. @return the element <identity>; null, and logged, when there is none to trust
const tinyxml2::XMLElement* parse(tinyxml2::XMLDocument& document, const std::string& text) {
    if (text.empty()) {
        logError("there is none; is the hardware service running?");
        return nullptr;
    }
    if (text.size() > maxTextSize) {
        logError("its text has more than " + std::to_string(maxTextSize) + " bytes");
        return nullptr;
    }
    // Either would end the parser's strings early and let a half value pass for a whole one.
    if (text.find('\0') != std::string::npos || text.find("&#") != std::string::npos) {
        logError("its text must not hold zero bytes or character references");
        return nullptr;
    }
    if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) {
        logError(std::string("its text is no XML: ") + document.ErrorName() + " in line " +
                 std::to_string(document.ErrorLineNum()));
        return nullptr;
    }
    for (const tinyxml2::XMLNode* node = document.FirstChild(); node != nullptr;
         node = node->NextSibling()) {
        if (node->ToUnknown() != nullptr) {
            logError("its text must not hold a document type");
            return nullptr;
        }
    }
    const tinyxml2::XMLElement* const root = document.RootElement();
    if (root == nullptr || std::string_view(root->Name()) != "identity" ||
        root->NextSiblingElement() != nullptr) {
        logError("its text must hold one element <identity> at the top");
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
