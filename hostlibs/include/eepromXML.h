#pragma once

#include <string>

/// The appliance's models, numbered as in the identity record.
enum ModelType : int {
    MODEL_UNKNOWN = 0,  ///< no record, or an invalid one
    MODEL_C100 = 1,
    MODEL_C200 = 2,
    MODEL_C300 = 3,
    MODEL_C400 = 4,
    MODEL_C500 = 5,
    MODEL_C600 = 6,  ///< carries the Laird radio module
};

/// Returns a model's name, as users know it.
/// @param modelType  the model
/// @return the name, which may contain spaces; "Corvane" for an unnamed model
std::string GetModelNameStringExternal(ModelType modelType);

/// The board identity, read from the hardware service's XML text (format: docs/identity.md).
///
/// libCorvane relies on this: construction from any text succeeds, even if it is broken, huge or
/// hostile. Fields without a valid value are neutral.
class eepromXML {
public:
    /// Calls AnalyseXML() and keeps its result for IsValid().
    /// @param text  the XML text
    explicit eepromXML(const std::string& text);

    /// Reads the fields from the text. A missing or invalid field becomes neutral, and the log
    /// names the element.
    /// @param text  the XML text
    /// @return whether every field is valid
    bool AnalyseXML(std::string text);

    /// @return whether the last analysis found every field valid
    bool IsValid() const { return valid; }

    /// @return the model; MODEL_UNKNOWN when unknown
    ModelType GetModelType() const { return modelType; }

    /// @return the product family (see Capabilities); 0 when unknown
    int GetProductFamily() const { return productFamily; }

    /// @return the board's revision, 0 to 65535; 0 when unknown
    unsigned GetBoardRevision() const { return boardRevision; }

    /// Returns the serial number.
    /// @param grouped  true for groups of four characters joined by '-', as on the label; false for
    /// the stored form
    /// @return the serial number; empty when unknown
    std::string GetSerialNumberString(bool grouped) const;

private:
    bool valid = false;
    ModelType modelType = MODEL_UNKNOWN;
    int productFamily = 0;
    unsigned boardRevision = 0;
    std::string serialNumber;
};
