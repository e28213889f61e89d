#include "HostileTexts.h"
#include "Program.h"
#include "UnprintableCharacters.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace corvane::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Json = nlohmann::json;

std::string page(const char* file) {
    std::ifstream stream(std::filesystem::path(CORVANECTL_PAGES) / file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// Checks a value against the part of JSON Schema that ours uses. @return what is wrong
std::string faultOf(const Json& value, const Json& rule, const Json& schema) {
    if (rule.contains("$ref")) {
        const std::string name = rule["$ref"].get<std::string>();
        return faultOf(value, schema.at(Json::json_pointer(name.substr(1))), schema);
    }
    const auto allows = [&](const char* key, const Json& what) {
        const Json allowed = rule.value(key, what);
        return allowed == what || std::find(allowed.begin(), allowed.end(), what) != allowed.end();
    };
    if (!allows("type", value.is_number() ? "integer" : value.type_name())) return value.dump();
    if (!allows("enum", value)) return value.dump();
    for (const auto& each : value.is_array() && rule.contains("items") ? value : Json::array()) {
        const std::string fault = faultOf(each, rule["items"], schema);
        if (!fault.empty()) return fault;
    }
    if (value.is_null() || !rule.contains("properties")) return "";
    // All keys are required, and no other is allowed.
    if (rule["properties"].size() != value.size()) return "not the keys of " + rule.dump();
    for (const auto& [key, each] : rule["properties"].items()) {
        if (!value.contains(key)) return "no " + key + " in " + value.dump();
        const std::string fault = faultOf(value[key], each, schema);
        if (!fault.empty()) return key + ": " + fault;
    }
    return "";
}

TEST_F(Corvanectl, JsonFollowsItsSchemaWhateverHappens) {
    bluez.fail(phone.path(), "Pair", "org.bluez.Error.Failed", "no");
    std::vector<Json> objects =
        run({"--json", "-k"},
            "status\ndevices\npair Phone\nfind Phone\nscan\nnonsense\nhelp\nhelp on\ncancel\n"
            "trust Nobody\non\noff\nairplane off\ndoctor\nconnect \"Living room\"\n"
            "watch-log x 1 -- cancel\nreport " +
                (root / "r.tar").string() + "\nstatus\nquit\n")
            .json();
    ASSERT_EQ(objects.size(), 19U);
    EXPECT_EQ(objects[0].at("result").at("serial"), "AB12CD34");
    EXPECT_EQ(objects[0].at("result").at("setting"), nullptr);
    EXPECT_TRUE(objects[1].at("result").at("devices").at(1).at("vendor").is_null());
    EXPECT_THAT(objects[2].at("errors").at(0).at("message"), HasSubstr("bluezDeviceCallMethod"));
    for (const char* option : {"--version", "--help", "--nosuch", "--log-level"}) {
        const std::vector<Json> more = run({"--json", option}).json();
        ASSERT_EQ(more.size(), 1U) << option;
        objects.push_back(more[0]);
    }
    const Json schema = Json::parse(page("corvanectl.schema.json"));
    for (const Json& object : objects) {
        EXPECT_EQ(faultOf(object, schema, schema), "") << object;
        if (object["command"].is_null() || object["result"].is_null()) continue;
        const Json& form = schema["$defs"][object["command"].get<std::string>()];
        EXPECT_EQ(faultOf(object["result"], form, schema), "") << object;
    }
}

// Names from the air

/// The table of characters to escape, against the properties that PCRE2 knows.
TEST(UnprintableCharacters, HaveTheUnicodePropertiesOfTheirComment) {
    GRegex* const regex =
        g_regex_new("^[\\p{Cc}\\p{Zl}\\p{Zp}\\p{Bidi_Control}\\p{Default_Ignorable_Code_Point}]",
                    static_cast<GRegexCompileFlags>(0), static_cast<GRegexMatchFlags>(0), nullptr);
    if (regex == nullptr) GTEST_SKIP() << "GLib's regular expressions lack these properties";
    for (gunichar c = 1; c <= 0x10FFFF; ++c) {
        char text[7] = "";
        if (g_unichar_validate(c) == FALSE) continue;
        text[g_unichar_to_utf8(c, text)] = '\0';
        const gboolean has = g_regex_match(regex, text, static_cast<GRegexMatchFlags>(0), nullptr);
        EXPECT_EQ(isUnprintable(c), has != FALSE) << std::hex << c;
    }
    g_regex_unref(regex);
}

/// Whether nothing in the text can steer a terminal or mislead its reader.
bool isFitForATerminal(const std::string& text) {
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        if (*at != '\n' && isUnprintable(g_utf8_get_char(at))) return false;
    }
    return g_utf8_validate(text.c_str(), -1, nullptr) != FALSE;
}

TEST_F(Corvanectl, HostileNamesSurviveEveryFormOfOutput) {
    std::vector<Device> devices;
    std::vector<std::string> commands;
    for (const auto& [file, name] : hostileTexts("names")) {
        EXPECT_TRUE(isFitForATerminal(run({"--log-level", name.c_str()}).errors)) << file;
        // Others cannot come through the bus.
        if (g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr) == FALSE) {
            continue;
        }
        devices.push_back({"00:11:22:33:55:" + std::to_string(10 + devices.size()), name});
        commands.insert(commands.end(), {"find", name, "trust", name});
    }
    bluez.setDevices(devices);
    const Ran each = run(commands);
    EXPECT_TRUE(isFitForATerminal(each.output)) << each.output;
    EXPECT_EQ(each.errors, "");
    // What is shown between quotes can be typed again.
    std::istringstream lines(each.output);
    std::string typed;
    std::string trusted;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("Trusts ", 0) != 0) continue;
        trusted += line + '\n';
        typed += "trust " + line.substr(7, line.rfind('"') - 6) + '\n';
    }
    EXPECT_EQ(run({}, typed).output, trusted);

    const Ran json = run({"--json", "devices"});
    EXPECT_TRUE(std::all_of(json.output.begin(), json.output.end(),
                            [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7f); }));
    const Json shown = json.json().at(0);
    for (std::size_t i = 0; i < devices.size(); ++i) {
        EXPECT_EQ(shown.at("result").at("devices").at(i).at("name"), devices[i].name);
    }
}

TEST_F(Corvanectl, NamesAreShownInUtf8OrInAscii) {
    bluez.setDevices({{phone.address, "K\u00fc\u061cche\\"}});
    for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) unsetenv(variable);
    EXPECT_THAT(run({"devices"}).output, HasSubstr("K\u00fc\\xD8\\x9Cche\\\\ "));
    setenv("LC_ALL", "C", 1);
    EXPECT_THAT(run({"devices"}).output, HasSubstr("K\\xC3\\xBC\\xD8\\x9Cche\\\\ "));
    unsetenv("LC_ALL");
}

// doctor and pages

TEST_F(Corvanectl, DoctorGivesARemedyForEachProblemAndTouchesNothing) {
    const Ran report = run({"--json", "doctor"});
    const Json result = report.json().at(0).at("result");
    EXPECT_EQ(report.status, result.at("problems") > 0 ? 17 : 0);
    for (const Json& finding : result.at("findings")) {
        const bool well = finding.at("verdict") == "ok";
        EXPECT_EQ(well, finding.at("remedy").is_null()) << finding;
        EXPECT_FALSE(well && finding.dump().find("No such file") != std::string::npos) << finding;
    }
    EXPECT_THAT(result.dump(), HasSubstr("/bin/rtk_hciattach"));
    EXPECT_THAT(result.dump(), Not(HasSubstr("/bin/hciattach")));  // of another wiring
    EXPECT_THAT(commands(), IsEmpty());

    write("tmp/bluetoothEnabled", "maybe");
    bluez.release("org.corvane.Hardware");
    const Ran lost = run({"doctor"});
    EXPECT_EQ(lost.status, 17);
    EXPECT_THAT(lost.output, HasSubstr("\n        -> rm /tmp/bluetoothEnabled"));
    EXPECT_THAT(lost.output, ContainsRegex("PROBLEM org.corvane.Hardware .*\n *-> start the hard"));
}

TEST_F(Corvanectl, PagesNameEveryCommandOptionAndStatus) {
    const std::string help = run({"--help"}).output;
    EXPECT_EQ(help.rfind("Usage: corvanectl [OPTION]... [COMMAND]...\n", 0), 0U);
    EXPECT_THAT(help, ContainsRegex("17[ \n]+board-unfit,[ \n]+130[ \n]+interrupted"));
    std::vector<std::string> usages;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80U) << line;
        const std::size_t option = line.find("--");
        if (option < 6) usages.push_back(line.substr(option, line.find(' ', option) - option));
    }
    EXPECT_EQ(usages.size(), 9U);
    const Json all = run({"--json", "help"}).json().at(0);
    for (const Json& each : all.at("result").at("commands")) {
        usages.push_back(each.at("usage"));
    }
    EXPECT_GT(usages.size(), 25U);
    std::string manual = page("corvanectl.1");
    manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
    for (const std::string& usage : usages) {
        const std::string name = usage.substr(0, usage.find(' '));
        EXPECT_THAT(manual, ContainsRegex("\n\\.B (-., )?" + name));
        EXPECT_THAT(manual, HasSubstr(usage));
        EXPECT_THAT(page("corvanectl.bash"), HasSubstr(name));
        EXPECT_THAT(page("_corvanectl"), HasSubstr(name));
    }
    const Json schema = Json::parse(page("corvanectl.schema.json"));
    for (const Json& name : schema["properties"]["outcome"]["enum"]) {
        EXPECT_THAT(manual, HasSubstr(name.get<std::string>()));
    }
}

}  // namespace
}  // namespace corvane::test
