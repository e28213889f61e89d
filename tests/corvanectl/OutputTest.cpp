#include "HostileTexts.h"
#include "Program.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

namespace corvane::test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Json = nlohmann::json;

// JSON
// ---------------------------------------------------------------------------------------------

TEST_F(Corvanectl, JsonGivesOneObjectACommandAndNothingElse) {
    bluez.fail(phone.path(), "Pair", "org.bluez.Error.Failed", "no");
    const Ran all = run({"--json", "-k"},
                        "status\ndevices\nfind Phone\nscan\npair Phone\nnonsense\nhelp\ncancel\n"
                        "trust Nobody\non\n");
    EXPECT_EQ(all.status, 6);
    const std::vector<Json> objects = all.json();
    ASSERT_EQ(objects.size(), 10U);
    for (const Json& object : objects) {
        EXPECT_TRUE(object.at("status").is_number_integer()) << object;
        EXPECT_EQ(object.at("status") == 0, object.at("outcome") == "success") << object;
        EXPECT_EQ(object.at("status") == 0, !object.contains("problem")) << object;
        if (object.at("command").is_null()) continue;
        EXPECT_GE(object.at("duration_ms"), 0);
        EXPECT_TRUE(object.at("errors").is_array());
    }
    const Json device = objects[1].at("result").at("devices").at(0);
    EXPECT_EQ(device.at("address"), phone.address);
    EXPECT_EQ(device.at("class"), "0x5A020C");
    EXPECT_EQ(device.at("vendor"), 0x4C);
    EXPECT_EQ(device.at("paired"), false);
    EXPECT_EQ(objects[3].at("result").at("answer"), "REQUEST_SUCCESS");
    const Json record = objects[4].at("errors").at(0);
    EXPECT_EQ(record.at("level"), "ERROR");
    EXPECT_THAT(record.at("message"), HasSubstr("bluezDeviceCallMethod"));
    EXPECT_THAT(record.at("function"), HasSubstr("BluetoothManager::"));
    EXPECT_EQ(objects[4].at("outcome"), "refused");
    EXPECT_THAT(all.errors, HasSubstr("Device setup complete"));  // from the shell
    EXPECT_TRUE(objects[5].at("command").is_null());
}

// Names from the air
// ---------------------------------------------------------------------------------

/// Whether nothing in the text can steer a terminal or mislead its reader.
bool isFitForATerminal(const std::string& text) {
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
        return false;
    }
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar c = g_utf8_get_char(at);
        const bool control = (c < 0x20 && c != '\n') || (c >= 0x7F && c < 0xA0);
        const bool separator = c == 0x2028 || c == 0x2029;
        const bool direction = c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
                               (c >= 0x2066 && c <= 0x2069);
        if (control || separator || direction) return false;
    }
    return true;
}

/// The hostile names that come through the bus.
std::vector<std::string> hostileNames() {
    std::vector<std::string> names;
    for (const auto& [file, text] : hostileTexts("names")) {
        if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE) {
            names.push_back(text);
        }
    }
    return names;
}

TEST_F(Corvanectl, HostileNamesSurviveEveryFormOfOutput) {
    const std::vector<std::string> names = hostileNames();
    std::vector<Device> devices;
    std::vector<std::string> commands;
    for (const std::string& name : names) {
        devices.push_back({"00:11:22:33:55:" + std::to_string(10 + devices.size()), name});
        commands.insert(commands.end(), {"find", name, "trust", name});
    }
    ASSERT_GT(devices.size(), 30U);
    bluez.setDevices(devices);

    const Ran table = run({"devices"});
    EXPECT_TRUE(isFitForATerminal(table.output)) << table.output;
    for (const char* shown : {"K\xc3\xbc"
                              "che \xf0\x9f\x8e\xb5",
                              "\\x1b]0;owned\\x07\\x1b[31m", "\\u{9b}2J", "a\\x0d\\x0ab\\x09c",
                              "\\u{202e}gpj.exe", "a\\u{2028}b\\u{2029}c\\u{85}d", "\\\\x1b[2J"}) {
        EXPECT_THAT(table.output, HasSubstr(shown));
    }

    const Ran each = run(commands);
    EXPECT_EQ(each.status, 0) << each.errors;
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
}

TEST_F(Corvanectl, ABoardWithoutLocalesListsNamesInAscii) {
    setenv("CORVANE_TEST_BARE", "", 1);
    bluez.setDevices({{phone.address,
                       "K\xc3\xbc"
                       "che"}});
    const Ran ran = run({"devices"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.output, HasSubstr("K\\u{fc}che"));
}

TEST_F(Corvanectl, HostileWordsOfItsCommandLineDoNotReachTheTerminal) {
    for (const auto& [file, text] : hostileTexts("names")) {
        const Ran ran = run({"--log-level", text.c_str()});
        EXPECT_EQ(ran.status, 2) << file;
        EXPECT_TRUE(isFitForATerminal(ran.errors)) << file << ": " << ran.errors;
    }
    // The shell would see only what stands before the zero byte, and not the quote that closes it.
    const Ran ran = run({}, "watch-log \"a\\x00b\" 10 -- cancel\n");
    EXPECT_EQ(ran.status, 2);
    EXPECT_THAT(ran.errors, HasSubstr("\"a\\x00b\" holds a single quote or a zero byte"));
}

TEST_F(Corvanectl, NamesThatAreNoUtf8StayValidJson) {
    const Ran json = run({"--json", "find", "ab\xff\xfe"});
    EXPECT_EQ(json.status, 7);
    EXPECT_THAT(json.json().at(0).at("problem"), HasSubstr("ab\\xff\\xfe"));
    const Ran plain = run({"find", "ab\xff"});
    EXPECT_THAT(plain.errors, HasSubstr("\"ab\\xff\""));
}

// doctor
// ---------------------------------------------------------------------------------------------

TEST_F(Corvanectl, DoctorTellsARemedyForEachProblemAndTouchesNothing) {
    const Ran report = run({"--json", "doctor"});
    const Json result = report.json().at(0).at("result");
    EXPECT_EQ(report.status, result.at("problems") > 0 ? 17 : 0);
    std::set<std::string> verdicts;
    for (const Json& finding : result.at("findings")) {
        verdicts.insert(finding.at("verdict"));
        const bool bad = finding.at("verdict") == "problem" || finding.at("verdict") == "warning";
        EXPECT_EQ(bad, !finding.at("remedy").get<std::string>().empty()) << finding;
        EXPECT_FALSE(finding.at("found").get<std::string>().empty()) << finding;
    }
    EXPECT_THAT(verdicts, Contains("ok"));
    EXPECT_THAT(verdicts, Contains("unused"));  // the other wirings' programs
    EXPECT_THAT(commands(), IsEmpty());

    write("tmp/bluetoothEnabled", "maybe");
    EXPECT_THAT(run({"doctor"}).output,
                HasSubstr("no number: \"maybe\"\n        -> rm /tmp/bluetoothEnabled"));
    bluez.release("org.corvane.Hardware");
    const Ran lost = run({"doctor"});
    EXPECT_EQ(lost.status, 17);
    EXPECT_THAT(lost.output, HasSubstr("PROBLEM org.corvane.Hardware"));
    EXPECT_THAT(lost.output, HasSubstr("-> start the hardware service"));
}

/// The texts in double quotes of a C++ source, those that follow each other as one.
std::vector<std::string> textsOf(const std::filesystem::path& source) {
    std::ifstream stream(source);
    std::string code((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    code = std::regex_replace(code, std::regex("//[^\n]*|#include[^\n]*"), "");
    const std::string folder = "\"insmod /usr/lib/modules/`uname -r`/kernel/\"";
    code = std::regex_replace(code, std::regex("#define[^\n]*"), "");
    code = std::regex_replace(code, std::regex("\\bCORVANE_MODULES\\b"), folder);
    code = std::regex_replace(code, std::regex("\"\\s*\""), "");
    std::vector<std::string> texts;
    const std::regex literal("\"([^\"]*)\"");
    for (std::sregex_iterator it(code.begin(), code.end(), literal), end; it != end; ++it) {
        texts.push_back((*it)[1]);
    }
    return texts;
}

TEST_F(Corvanectl, DoctorNamesEveryFileAndProgramThatTheLibraryReliesOn) {
    const Ran report = run({"--json", "doctor"});
    const std::string named = report.json().at(0).at("result").at("findings").dump();
    std::set<std::string> wanted;
    // Object paths of the bus and folders of the kernel's release are no files.
    const std::regex path("(/(?:bin|sbin|usr|dev|var|tmp|sys)/[A-Za-z0-9_./-]+[A-Za-z0-9_])");
    const std::regex module("/kernel/([a-z_/]+\\.ko)");
    const std::regex program("(?:^|[;|]|-- |`)\\s*([a-z][a-z-]+) [-a-z0-9/]");
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(CORVANE_LIBRARY_SOURCES)) {
        if (entry.path().extension() != ".cpp") continue;
        for (const std::string& text : textsOf(entry.path())) {
            const bool command = std::regex_search(
                text, std::regex("^(rfkill|insmod|modprobe|hciconfig|start-stop|killall|cp|diff|"
                                 "/bin|/sbin)"));
            for (const std::regex& form : {path, module}) {
                for (std::sregex_iterator it(text.begin(), text.end(), form), end; it != end;
                     ++it) {
                    if ((*it)[1] != "/usr/lib/modules") wanted.insert((*it)[1]);
                }
            }
            if (!command) continue;
            for (std::sregex_iterator it(text.begin(), text.end(), program), end; it != end; ++it) {
                if ((*it)[1] != "export") wanted.insert((*it)[1]);
            }
        }
    }
    EXPECT_GT(wanted.size(), 25U);
    for (const std::string& thing : wanted) EXPECT_THAT(named, HasSubstr(thing));
}

// Pages
// ----------------------------------------------------------------------------------------------

TEST_F(Corvanectl, PagesInTheTreeAreThoseThatItMakes) {
    for (const auto& [kind, file] :
         {std::pair{"man", "corvanectl.1"}, std::pair{"bash", "corvanectl.bash"},
          std::pair{"zsh", "_corvanectl"}}) {
        std::ifstream stream(std::filesystem::path(CORVANECTL_PAGES) / file);
        std::ostringstream text;
        text << stream.rdbuf();
        EXPECT_EQ(run({"--generate", kind}).output, text.str())
            << "run the build target corvanectl-pages";
    }
}

TEST_F(Corvanectl, HelpAndManualNameEveryCommandAndStatus) {
    const Json commands = run({"--json", "help"}).json().at(0).at("result").at("commands");
    const std::string help = run({"--help"}).output;
    const std::string manual = run({"--generate", "man"}).output;
    EXPECT_GT(commands.size(), 15U);
    for (const Json& command : commands) {
        EXPECT_THAT(help, HasSubstr(command.at("usage").get<std::string>()));
        EXPECT_THAT(help, HasSubstr(command.at("help").get<std::string>()));
    }
    for (const char* status : {"\n.B 0\n", "\n.B 16\n", "\n.B 130\n"}) {
        EXPECT_THAT(manual, HasSubstr(status));
    }
    EXPECT_THAT(run({"--version"}).output, HasSubstr("ABI 1"));
}

}  // namespace
}  // namespace corvane::test
