#include "HostileTexts.h"
#include "Program.h"
#include "UnprintableCharacters.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <regex>

namespace corvane::test {
namespace {

std::string page(const std::string& file) { return contentOf(CORVANECTL_PAGES "/" + file); }

/// Checks a value against the part of JSON Schema that ours uses.
void expectForm(const Json& value, Json rule, const Json& schema) {
    if (rule.contains("$ref")) {
        rule = schema.at(Json::json_pointer(rule["$ref"].get<std::string>().substr(1)));
    }
    const auto allows = [&](const char* key, const Json& what) {
        const Json allowed = rule.value(key, what);
        return allowed == what || std::find(allowed.begin(), allowed.end(), what) != allowed.end();
    };
    EXPECT_TRUE(allows("type", value.is_number() ? "integer" : value.type_name()) &&
                allows("enum", value))
        << value << " against " << rule;
    if (value.is_array()) {
        for (const Json& each : value) expectForm(each, rule.value("items", Json()), schema);
    }
    if (!value.is_object() || !rule.contains("properties")) return;
    // All keys are required, and no other is allowed.
    EXPECT_EQ(rule["properties"].size(), value.size()) << value << " against " << rule;
    for (const auto& [key, each] : rule["properties"].items()) {
        expectForm(value.at(key), each, schema);
    }
}

TEST_F(Corvanectl, JsonFollowsItsSchemaWhateverHappens) {
    bluez.fail(phone.path(), "Pair", "org.bluez.Error.Failed", "no");
    std::vector<Json> objects =
        json({"-k"},
             "status\ndevices\npair Phone\nfind Phone\nscan\nnonsense\nhelp\nhelp on\ncancel\n"
             "trust Nobody\non\noff\nairplane off\ndoctor\nconnect \"Living room\"\n"
             "watch-log x 1 -- cancel\nreport " +
                 root / "r.tar" + "\nstatus\nquit\n");
    ASSERT_EQ(objects.size(), 19U);
    EXPECT_EQ(objects[0].at("result").at("serial"), "AB12CD34");
    EXPECT_EQ(objects[0].at("result").at("setting"), nullptr);
    EXPECT_TRUE(objects[1].at("result").at("devices").at(1).at("vendor").is_null());
    EXPECT_THAT(objects[2].at("errors").at(0).at("message"), HasSubstr("bluezDeviceCallMethod"));
    for (const char* option : {"--version", "--help", "--nosuch", "--log-level"}) {
        objects.push_back(json({option}).at(0));
    }
    const Json schema = Json::parse(page("corvanectl.schema.json"));
    for (const Json& object : objects) {
        expectForm(object, schema, schema);
        if (object["command"].is_null() || object["result"].is_null()) continue;
        expectForm(object["result"], schema["$defs"][object["command"].get<std::string>()], schema);
    }
}

// Names from the air

/// Whether nothing in the text can steer a terminal or mislead its reader.
bool isFitForATerminal(const std::string& text) {
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        if (*at != '\n' && isUnprintable(g_utf8_get_char(at))) return false;
    }
    return g_utf8_validate(text.c_str(), -1, nullptr) != FALSE;
}

TEST_F(Corvanectl, HostileNamesSurviveEveryFormOfOutput) {
    std::vector<Device> devices;
    Words commands;
    for (const auto& [file, name] : hostileTexts("names")) {
        EXPECT_TRUE(isFitForATerminal(run({"--log-level", name.c_str()}).errors)) << file;
        // Others cannot come through the bus.
        if (g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr) == FALSE) {
            continue;
        }
        devices.push_back({"00:11:22:33:55:" + std::to_string(10 + devices.size()), name});
        commands.insert(commands.end(), {"trust", name});
    }
    bluez.setDevices(devices);
    const Ran trusted = run(commands);
    EXPECT_EQ(trusted.errors, "");
    EXPECT_TRUE(isFitForATerminal(trusted.output + run({"devices"}).output)) << trusted.output;
    // What is shown between quotes can be typed again.
    const std::regex line("Trusts (.*) .00:.*");
    EXPECT_EQ(run({}, std::regex_replace(trusted.output, line, "trust $1")).output, trusted.output);

    EXPECT_FALSE(std::regex_search(run({"--json", "devices"}).output, std::regex("[^ -~\n]")));
    const Json shown = json({"devices"}).at(0).at("result").at("devices");
    for (std::size_t i = 0; i < devices.size(); ++i)
        EXPECT_EQ(shown.at(i)["name"], devices[i].name);
}

TEST_F(Corvanectl, NamesAreShownInUtf8OrInAscii) {
    bluez.setDevices({{phone.address, "K\u00fc\u061cche\\"}});
    EXPECT_THAT(run({"devices"}).output, HasSubstr("K\u00fc\\xD8\\x9Cche\\\\ "));
    setenv("LC_ALL", "C", 1);
    EXPECT_THAT(run({"devices"}).output, HasSubstr("K\\xC3\\xBC\\xD8\\x9Cche\\\\ "));
}

// doctor and pages

TEST_F(Corvanectl, DoctorGivesARemedyForEachProblemAndTouchesNothing) {
    const Json report = json({"doctor"}).at(0);
    const Json& result = report.at("result");
    EXPECT_EQ(report.at("status"), result.at("problems") > 0 ? 17 : 0);
    for (const Json& finding : result.at("findings")) {
        const bool well = finding.at("verdict") == "ok";
        EXPECT_EQ(well, finding.at("remedy").is_null()) << finding;
        EXPECT_FALSE(well && finding.dump().find("No such file") != std::string::npos) << finding;
    }
    EXPECT_THAT(result.dump(), HasSubstr("/bin/rtk_hciattach"));
    EXPECT_THAT(result.dump(), Not(HasSubstr("/bin/hciattach")));  // of another wiring
    EXPECT_THAT(commands(), IsEmpty());

    write("setting", "maybe");
    bluez.release("org.corvane.Hardware");
    const std::string lost = run({"doctor"}).output;
    EXPECT_THAT(lost, HasSubstr("\n        -> rm /tmp/bluetoothEnabled"));
    EXPECT_THAT(lost, ContainsRegex("PROBLEM org.corvane.Hardware .*\n *-> start the hard"));
}

TEST_F(Corvanectl, PagesNameEveryCommandOptionAndStatus) {
    const std::string help = run({"--help"}).output;
    EXPECT_EQ(help.rfind("Usage: corvanectl [OPTION]... [COMMAND]...\n", 0), 0U);
    EXPECT_FALSE(std::regex_search(help, std::regex(".{81}"))) << help;
    const std::string manual = std::regex_replace(page("corvanectl.1"), std::regex("\\\\"), "");
    const auto expect = [&](const std::string& word, const std::string& usage) {
        EXPECT_THAT(manual, HasSubstr(usage));
        EXPECT_THAT(page("corvanectl.bash"), HasSubstr(word));
        EXPECT_THAT(page("_corvanectl"), HasSubstr("'" + word + ":"));
    };
    const std::regex option("--[a-z-]+");
    std::sregex_iterator found(help.begin(), help.end(), option);
    EXPECT_GT(std::distance(found, {}), 9);
    for (; found != std::sregex_iterator(); ++found) expect(found->str(), found->str());
    const Json result = json({"help"}).at(0).at("result");
    for (const Json& command : result.at("commands")) {
        const std::string usage = command.at("usage");
        expect(usage.substr(0, usage.find(' ')), "\n.B " + usage + '\n');
    }
    const Json schema = Json::parse(page("corvanectl.schema.json"));
    for (const std::string outcome : schema["properties"]["outcome"]["enum"]) {
        EXPECT_THAT(manual, HasSubstr("(" + outcome + ")"));
        EXPECT_THAT(help, ContainsRegex("[ \n]" + outcome));
    }
}

}  // namespace
}  // namespace corvane::test
