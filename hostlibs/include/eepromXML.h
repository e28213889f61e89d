#pragma once

#include <string>

/// The appliance's models, as the identity record numbers them.
enum ModelType : int {
    MODEL_UNKNOWN = 0,  ///< no record, or one that could not be read
    MODEL_C100 = 1,
    MODEL_C200 = 2,
    MODEL_C300 = 3,
    MODEL_C400 = 4,
    MODEL_C500 = 5,
    MODEL_C600 = 6,  ///< carries the Laird radio module
};

/// The name that users know a model by.
/// @return the name, which may hold blanks; "Corvane" for a number without a name of its own
std::string GetModelNameStringExternal(ModelType modelType);

/// The board identity, read from the hardware service's XML text (docs/identity.md gives its form).
///
/// What libCorvane relies on: construction from any text succeeds, broken, huge or hostile text
/// included, and leaves the fields below at their neutral values where the text says nothing valid.
class eepromXML {
public:
    /// Runs AnalyseXML() on a copy of the text and keeps what it returned.
    explicit eepromXML(const std::string& text);

    /// Reads the fields from the text. A field that is missing or invalid takes its neutral value,
    /// is logged with the element's name, and makes the result false.
    bool AnalyseXML(std::string text);

    /// Whether the last analysis found everything.
    bool IsValid() const { return valid; }

    /// The model; MODEL_UNKNOWN when not known.
    ModelType GetModelType() const { return modelType; }

    /// The product family (see Capabilities); 0 when not known.
    int GetProductFamily() const { return productFamily; }

    /// The board's revision, 0 to 65535; 0 when not known.
    unsigned GetBoardRevision() const { return boardRevision; }

    /// The serial number; empty when not known.
    /// @param grouped  true: in groups of four characters joined by '-', as on the label; false: as
    /// it is stored
    std::string GetSerialNumberString(bool grouped) const;

private:
    bool valid = false;
    ModelType modelType = MODEL_UNKNOWN;
    int productFamily = 0;
    unsigned boardRevision = 0;
    std::string serialNumber;
};
