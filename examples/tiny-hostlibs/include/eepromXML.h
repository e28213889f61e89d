#pragma once

#include <string>

enum class ModelType {};

std::string GetModelNameStringExternal(ModelType modelType);

class eepromXML {
public:
    explicit eepromXML(const std::string& text) { AnalyseXML(text); }
    bool AnalyseXML(const std::string& text);
    bool IsValid() {
        return modelType != ModelType{} && productFamily > 0 && !serialNumber.empty();
    }
    ModelType GetModelType() { return modelType; }
    int GetProductFamily() { return productFamily; }
    unsigned GetBoardRevision() { return boardRevision; }
    std::string GetSerialNumberString(bool grouped);

private:
    eepromXML() = default;

    ModelType modelType{};
    int productFamily = 0;
    unsigned boardRevision = 0;
    std::string serialNumber;
};
