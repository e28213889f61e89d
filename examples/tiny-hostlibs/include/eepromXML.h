#pragma once

#include <string>

enum class ModelType {};

std::string GetModelNameStringExternal(ModelType modelType);

class eepromXML {
public:
    explicit eepromXML(const std::string& text);
    ModelType GetModelType() { return modelType; }
    int GetProductFamily() { return productFamily; }
    unsigned GetBoardRevision() { return boardRevision; }
    std::string GetSerialNumberString(bool grouped);

private:
    ModelType modelType{};
    int productFamily = 0;
    unsigned boardRevision = 0;
    std::string serialNumber;
};
