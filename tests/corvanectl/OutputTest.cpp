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
        const Json allowed = rule.value(key, Json::array({what}));
        return allowed == what || std::find(allowed.begin(), allowed.end(), what) != allowed.end();
    };
    if (!allows("type", value.is_number() ? "integer" : value.type_name())) return value.dump();
    if (!allows("enum", value)) return value.dump();
    if (value.is_null()) return "";
    for (const auto& each : value.is_array() && rule.contains("items") ? value : Json::array()) {
        const std::string fault = faultOf(each, rule["items"], schema);
        if (!fault.empty()) return fault;
    }
    if (!rule.contains("properties")) return "";
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
            "status\ndevices\nfind Phone\nscan\npair Phone\nnonsense\nhelp\nhelp on\ncancel\n"
            "trust Nobody\non\noff\nairplane off\ndoctor\nconnect \"Living room\"\nquit\n")
            .json();
    ASSERT_EQ(objects.size(), 16U);
    const Json device = objects[1].at("result").at("devices").at(1);
    EXPECT_EQ(device.at("class"), "0x240414");
    EXPECT_TRUE(device.at("vendor").is_null());
    EXPECT_EQ(objects[0].at("result").at("serial"), "AB12CD34");
    EXPECT_EQ(objects[0].at("result").at("setting"), nullptr);
    EXPECT_THAT(objects[4].at("errors").at(0).at("message"), HasSubstr("bluezDeviceCallMethod"));
    write("tmp/bluetoothEnabled", "");
    for (const std::vector<std::string>& words : {std::vector<std::string>{"--version"},
                                                  {"--help"},
                                                  {"--nosuch"},
                                                  {"status"},
                                                  {"--log-level", "x"},
                                                  {"watch-log", "x", "1", "--", "cancel"},
                                                  {"report", root / "r.tar"}}) {
        std::vector<std::string> all{"--json"};
        all.insert(all.end(), words.begin(), words.end());
        const std::vector<Json> more = run(all).json();
        ASSERT_EQ(more.size(), 1U) << words[0];
        objects.push_back(more[0]);
    }
    const Json schema = Json::parse(page("corvanectl.schema.json"));
    for (const Json& object : objects) {
        EXPECT_EQ(faultOf(object, schema, schema), "") << object;
        if (object["command"].is_null() || object["result"].is_null()) continue;
        // Each command's result has a form of its own.
        const Json& form = schema["$defs"][object["command"].get<std::string>()];
        EXPECT_EQ(faultOf(object["result"], form, schema), "") << object;
    }
}

// Names from the air

/// Whether nothing in the text can steer a terminal or mislead its reader.
bool isFitForATerminal(const std::string& text) {
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
        return false;
    }
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        if (*at != '\n' && isUnprintable(g_utf8_get_char(at))) return false;
    }
    return true;
}

/// The table of characters to escape, against the properties that PCRE2 knows.
TEST(UnprintableCharacters, AreThoseWithThePropertiesThatItNames) {
    GRegex* const regex =
        g_regex_new("^[\\p{Cc}\\p{Zl}\\p{Zp}\\p{Bidi_Control}\\p{Default_Ignorable_Code_Point}]",
                    static_cast<GRegexCompileFlags>(0), static_cast<GRegexMatchFlags>(0), nullptr);
    if (regex == nullptr) GTEST_SKIP() << "GLib's regular expressions lack these properties";
    for (gunichar c = 1; c <= 0x10FFFF; ++c) {
        char text[7] = "";
        if (g_unichar_validate(c) == FALSE) continue;
        text[g_unichar_to_utf8(c, text)] = '\0';
        const bool matches =
            g_regex_match(regex, text, static_cast<GRegexMatchFlags>(0), nullptr) != FALSE;
        EXPECT_EQ(isUnprintable(c), matches) << std::hex << c;
    }
    g_regex_unref(regex);
}

TEST_F(Corvanectl, HostileNamesSurviveEveryFormOfOutput) {
    std::vector<std::string> names;
    std::vector<Device> devices;
    std::vector<std::string> commands;
    for (const auto& [file, name] : hostileTexts("names")) {
        EXPECT_TRUE(isFitForATerminal(run({"--log-level", name.c_str()}).errors)) << file;
        if (g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr) == FALSE) {
            continue;  // cannot come through the bus
        }
        names.push_back(name);
        devices.push_back({"00:11:22:33:55:" + std::to_string(10 + devices.size()), name});
        commands.insert(commands.end(), {"find", name, "trust", name});
    }
    ASSERT_GT(devices.size(), 30U);
    bluez.setDevices(devices);

    const Ran table = run({"devices"});
    EXPECT_TRUE(isFitForATerminal(table.output)) << table.output;
    for (const char* shown : {"\\x1B]0;owned\\x07\\x1B[31m",
                              "\\xC2\\x9B"
                              "2J",
                              "a\\x0D\\x0A"
                              "b\\x09"
                              "c",
                              "\\xE2\\x80\\xAEgpj.exe",
                              "a\\xE2\\x80\\xA8"
                              "b\\xE2\\x80\\xA9"
                              "c\\xC2\\x85"
                              "d",
                              "\\\\x1b[2J"}) {
        EXPECT_THAT(table.output, HasSubstr(shown));
    }
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

    commands.insert(commands.begin(), {"--json", "devices"});
    const Ran json = run(commands);
    EXPECT_TRUE(std::all_of(json.output.begin(), json.output.end(),
                            [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7f); }));
    const std::vector<Json> objects = json.json();
    ASSERT_EQ(objects.size(), 1 + 2 * names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(objects[0].at("result").at("devices").at(i).at("name"), names[i]);
        EXPECT_EQ(objects[1 + 2 * i].at("arguments").at(0), names[i]);
    }
    EXPECT_THAT(run({"--json", "find", "ab\xff"}).json().at(0).at("problem"), HasSubstr("b\\xFF"));
}

TEST_F(Corvanectl, NamesAreUtf8UnlessTheUserChoseALocaleWithoutIt) {
    const std::string name =
        "K\xc3\xbc"
        "che";
    bluez.setDevices({{phone.address, name}});
    for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) unsetenv(variable);
    EXPECT_THAT(run({"devices"}).output, HasSubstr(name));
    setenv("LC_ALL", "C", 1);
    EXPECT_THAT(run({"devices"}).output, HasSubstr("K\\xC3\\xBC"
                                                   "che"));
    unsetenv("LC_ALL");
}

// doctor and pages

TEST_F(Corvanectl, DoctorTellsARemedyForEachProblemAndTouchesNothing) {
    const Ran report = run({"--json", "doctor"});
    const Json result = report.json().at(0).at("result");
    EXPECT_EQ(report.status, result.at("problems") > 0 ? 17 : 0);
    for (const Json& finding : result.at("findings")) {
        EXPECT_EQ(finding.at("verdict") == "ok", finding.at("remedy").is_null()) << finding;
        if (finding.at("verdict") == "ok") {
            EXPECT_THAT(finding.at("found"), Not(HasSubstr("No such file"))) << finding;
        }
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
    const Json commands = run({"--json", "help"}).json().at(0).at("result").at("commands");
    EXPECT_GT(commands.size(), 15U);
    const Ran help = run({"--help"});
    std::vector<std::string> words;
    std::istringstream text(help.output.substr(0, help.output.find("Commands:")));
    for (std::string word; text >> word;) {
        const std::size_t name = word.find("--");
        if (name != std::string::npos) words.push_back(word.substr(name));
    }
    EXPECT_EQ(words.size(), 9U);
    std::istringstream lines(help.output);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80U) << line;
    EXPECT_EQ(help.output.rfind("Usage: corvanectl [OPTION]... [COMMAND]...\n", 0), 0U);
    std::string manual = page("corvanectl.1");
    manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
    for (const Json& command : commands) words.push_back(command.at("usage"));
    for (const std::string& word : words) {
        EXPECT_THAT(manual, ContainsRegex("\n\\.B (-., )?" + word.substr(0, word.find(' '))));
        const std::string takes =
            word.find(' ') == std::string::npos ? "" : word.substr(word.find(' '));
        EXPECT_THAT(manual, HasSubstr(takes));
        for (const char* file : {"corvanectl.bash", "_corvanectl"}) {
            EXPECT_THAT(page(file), HasSubstr(word.substr(0, word.find(' ')))) << file;
        }
    }
    const std::size_t statuses = help.output.find("Exit status");
    EXPECT_THAT(help.output.substr(statuses), HasSubstr("17 board-unfit"));
    for (const Json& name :
         Json::parse(page("corvanectl.schema.json"))["properties"]["outcome"]["enum"]) {
        EXPECT_THAT(manual, HasSubstr(name.get<std::string>()));
    }
}

}  // namespace
}  // namespace corvane::test
