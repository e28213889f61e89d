#include "eepromXML.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct IdentityCase {
    const char* name;
    std::string text;
    std::string read;  // as described below
};

std::string described(const eepromXML& record) {
    return (record.IsValid() ? "valid " : "invalid ") + std::to_string(record.GetModelType()) +
           ' ' + std::to_string(record.GetProductFamily()) + ' ' +
           std::to_string(record.GetBoardRevision()) + ' ' + record.GetSerialNumberString(false);
}

constexpr char nothing[] = "invalid 0 0 0 ";
constexpr char complete[] = "valid 6 2 3 C6A1B2C3D4";
constexpr char noModel[] = "invalid 0 2 3 C6A1B2C3D4";
constexpr char noSerial[] = "invalid 6 2 3 ";

/// A record with family 2 and revision 3.
std::string identity(const std::string& model, const std::string& serial = "C6A1B2C3D4") {
    return "<identity>" + model + "<family>2</family><revision>3</revision><serial>" + serial +
           "</serial></identity>";
}

std::string withModel(const std::string& model) { return identity("<model>" + model + "</model>"); }

std::string withSerial(const std::string& serial) { return identity("<model>6</model>", serial); }

const std::string usual = withModel("6");

const IdentityCase identities[]{
    {"CutShort", usual.substr(0, 60), nothing},
    {"TwoRoots", usual + usual, nothing},
    {"ZeroByte", usual + std::string(1, '\0'), nothing},
    {"ReferenceToAZeroByte", withSerial("C6A1&#0;B2C3"), nothing},
    {"EntityBomb",
     "<!DOCTYPE i [<!ENTITY a \"aaaaaaaa\"><!ENTITY b \"&a;&a;\">]>" + withSerial("&b;"), nothing},
    {"Complete", usual, complete},
    {"WithDeclarationAndMore",
     "<?xml version=\"1.0\"?><!-- board -->" +
         identity("<colour>red</colour>\n<model>\n 6\t</model>"),
     complete},
    {"LongestSerialNumber", withSerial(std::string(32, 'x')),
     "valid 6 2 3 " + std::string(32, 'x')},
    {"SerialNumberOfManyKinds", withSerial(" A-1 ~&lt;' "), "valid 6 2 3 A-1 ~<'"},
    {"ModelMissing", identity(""), noModel},
    {"ModelTwice", identity("<model>6</model><model>1</model>"), noModel},
    {"ModelWithRest", withModel("6a"), noModel},
    {"ModelOutOfRange", withModel("65536"), noModel},
    {"SerialTooLong", withSerial(std::string(33, 'x')), noSerial},
    {"SerialEscape", withSerial("A\x1B[2J"), noSerial},
    {"SerialDelete", withSerial("A\x7F"), noSerial}};

}  // namespace

TEST(Identity, KeepsItsValidValues) {
    for (const auto& [name, text, read] : identities) {
        EXPECT_EQ(described(eepromXML(text)), read) << name;
    }
}

TEST(Identity, ForgetsThePreviousText) {
    eepromXML record(usual);
    EXPECT_EQ(record.GetSerialNumberString(true), "C6A1-B2C3-D4");
    EXPECT_FALSE(record.AnalyseXML("<identity><model>6</model></identity>"));
    EXPECT_EQ(described(record), "invalid 6 0 0 ");
}
