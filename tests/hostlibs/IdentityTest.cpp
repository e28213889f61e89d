#include "eepromXML.h"

#include <gtest/gtest.h>

#include <ostream>
#include <set>

namespace {

struct IdentityCase {
    const char* name;
    std::string text;
    bool valid;
    int model;
    int family;
    unsigned revision;
    std::string serial;
};

constexpr char model[] = "<model>6</model>";
constexpr char family[] = "<family>2</family>";
constexpr char revision[] = "<revision>3</revision>";
constexpr char serial[] = "<serial>C6A1B2C3D4</serial>";

std::string identity(const std::string& inner) { return "<identity>" + inner + "</identity>"; }

std::string complete() { return identity(std::string(model) + family + revision + serial); }

/// A complete record except for the model element.
std::string withModel(const std::string& element) {
    return identity(element + family + revision + serial);
}

std::string withSerial(const std::string& value) {
    return identity(std::string(model) + family + revision + "<serial>" + value + "</serial>");
}

void PrintTo(const IdentityCase& row, std::ostream* output) { *output << row.name; }

IdentityCase nothing(const char* name, const std::string& text) {
    return {name, text, false, 0, 0, 0, ""};
}

IdentityCase noModel(const char* name, const std::string& element) {
    return {name, withModel(element), false, 0, 2, 3, "C6A1B2C3D4"};
}

IdentityCase noSerial(const char* name, const std::string& value) {
    return {name, withSerial(value), false, 6, 2, 3, ""};
}

IdentityCase whole(const char* name, const std::string& text,
                   const std::string& number = "C6A1B2C3D4") {
    return {name, text, true, 6, 2, 3, number};
}

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) result += text;
    return result;
}

class Identity : public testing::TestWithParam<IdentityCase> {};

}  // namespace

TEST_P(Identity, KeepsItsValidValues) {
    const IdentityCase& row = GetParam();
    const eepromXML record(row.text);
    EXPECT_EQ(record.IsValid(), row.valid);
    EXPECT_EQ(record.GetModelType(), row.model);
    EXPECT_EQ(record.GetProductFamily(), row.family);
    EXPECT_EQ(record.GetBoardRevision(), row.revision);
    EXPECT_EQ(record.GetSerialNumberString(false), row.serial);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Identity,
    testing::Values(
        nothing("Empty", ""), nothing("NoXml", "model=6"),
        nothing("CutShort", complete().substr(0, 60)), nothing("OtherRoot", "<hardware/>"),
        nothing("TwoRoots", complete() + complete()),
        nothing("ZeroByte", complete() + std::string(1, '\0')),
        nothing("ReferenceToAZeroByte", withSerial("C6A1&#0;B2C3")),
        nothing("EntityBomb", "<!DOCTYPE i [<!ENTITY a \"aaaaaaaa\"><!ENTITY b \"&a;&a;\">]>" +
                                  withSerial("&b;")),
        nothing("TooDeep", repeated("<identity>", 5000)),
        nothing("TooLarge", complete() + std::string(64UL * 1024UL, ' ')),
        whole("Complete", complete()),
        whole("WithDeclarationAndMore",
              "<?xml version=\"1.0\"?><!-- board -->" +
                  identity("<colour>red</colour>" + std::string(serial) + revision + family +
                           "\n  <model>\n 6\t</model>\n")),
        whole("LongestSerialNumber", withSerial(std::string(32, 'x')), std::string(32, 'x')),
        whole("SerialNumberOfManyKinds", withSerial(" A-1 ~&lt;' "), "A-1 ~<'"),
        noModel("ModelMissing", ""), noModel("ModelTwice", "<model>6</model><model>1</model>"),
        noModel("ModelEmpty", "<model/>"), noModel("ModelZero", "<model>0</model>"),
        noModel("ModelNegative", "<model>-1</model>"), noModel("ModelPlus", "<model>+6</model>"),
        noModel("ModelHexadecimal", "<model>0x6</model>"),
        noModel("ModelWithRest", "<model>6a</model>"),
        noModel("ModelOutOfRange", "<model>65536</model>"),
        noModel("ModelBeyondInt", "<model>99999999999999999999</model>"),
        noModel("ModelHoldsElement", "<model>6<b/></model>"),
        noModel("ModelDeeper", "<board><model>6</model></board>"), noSerial("SerialBlank", "  "),
        noSerial("SerialTooLong", std::string(33, 'x')), noSerial("SerialTwoLines", "A\nB"),
        noSerial("SerialEscape", "A\x1B[2J"), noSerial("SerialNotAscii", "A\xC3\xBC")),
    [](const auto& row) { return std::string(row.param.name); });

TEST(IdentityRecord, ForgetsThePreviousText) {
    eepromXML record(complete());
    EXPECT_FALSE(record.AnalyseXML(identity(model)));
    EXPECT_EQ(record.GetModelType(), MODEL_C600);
    EXPECT_EQ(record.GetBoardRevision(), 0U);
    EXPECT_EQ(record.GetSerialNumberString(false), "");
}

TEST(IdentityRecord, GroupsTheSerialNumberAsOnTheLabel) {
    EXPECT_EQ(eepromXML(withSerial("ABC")).GetSerialNumberString(true), "ABC");
    EXPECT_EQ(eepromXML(withSerial("ABCDEFGH")).GetSerialNumberString(true), "ABCD-EFGH");
    EXPECT_EQ(eepromXML(withSerial("ABCDEFGHI")).GetSerialNumberString(true), "ABCD-EFGH-I");
    EXPECT_EQ(eepromXML("").GetSerialNumberString(true), "");
}

TEST(ModelNames, DifferAndFitBetweenSingleQuotes) {
    std::set<std::string> names;
    for (int type = MODEL_UNKNOWN; type <= MODEL_C600; ++type) {
        const std::string name = GetModelNameStringExternal(static_cast<ModelType>(type));
        EXPECT_EQ(name.find('\''), std::string::npos);
        EXPECT_TRUE(names.insert(name).second) << name;
    }
    EXPECT_EQ(GetModelNameStringExternal(MODEL_UNKNOWN), "Corvane");
    EXPECT_EQ(GetModelNameStringExternal(static_cast<ModelType>(7)), "Corvane");
}
