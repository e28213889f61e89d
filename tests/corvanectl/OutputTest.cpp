#include "Program.h"

#include <gmock/gmock.h>

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

struct HostileName {
    const char* name;
    std::string text;
    const char* shown;  // in the table; "" for itself
};

class CorvanectlName : public Corvanectl, public testing::WithParamInterface<HostileName> {};

TEST_P(CorvanectlName, SurvivesEveryFormOfOutput) {
    const std::string& text = GetParam().text;
    Device device = phone;
    device.name = text;
    bluez.setDevices({device});
    const Ran plain = run({"devices", "find", text});
    EXPECT_EQ(plain.status, 0) << plain.errors;
    const std::string shown = *GetParam().shown == '\0' ? text : GetParam().shown;
    EXPECT_THAT(plain.output, HasSubstr(shown));
    const Ran trusted = run({"trust", text});
    EXPECT_EQ(trusted.status, 0) << trusted.errors;
    for (const std::string& output : {plain.output, trusted.output}) {
        for (const char c : output) {
            EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << output;
            EXPECT_NE(c, '\x7f');
        }
        EXPECT_THAT(output, Not(HasSubstr("\xc2\x9b")));
    }
    // What was shown between quotes can be typed again.
    const std::string quoted = trusted.output.substr(
        trusted.output.find('"'), trusted.output.rfind('"') - trusted.output.find('"') + 1);
    EXPECT_EQ(run({}, "trust " + quoted + "\n").status, 0) << quoted;

    const Ran json = run({"--json", "devices", "find", text});
    ASSERT_EQ(json.json().size(), 2U);
    EXPECT_EQ(json.json()[0].at("result").at("devices").at(0).at("name"), text);
    EXPECT_EQ(json.json()[1].at("arguments").at(0), text);
    for (const char c : json.output) EXPECT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7f));
}

INSTANTIATE_TEST_SUITE_P(Rows, CorvanectlName,
                         testing::Values(HostileName{"Utf8",
                                                     "K\xc3\xbc"
                                                     "che \xf0\x9f\x8e\xb5",
                                                     ""},
                                         HostileName{"Escape", "\x1b]0;owned\x07\x1b[31m",
                                                     "\\x1b]0;owned\\x07\\x1b[31m"},
                                         HostileName{"C1",
                                                     "\xc2\x9b"
                                                     "2J\x7f",
                                                     "\\u{9b}2J\\x7f"},
                                         HostileName{"Lines", "a\r\nb\tc", "a\\x0d\\x0ab\\x09c"},
                                         HostileName{"RightToLeft",
                                                     "\xe2\x80\xae"
                                                     "gpj.exe",
                                                     "\\u{202e}gpj.exe"},
                                         HostileName{"Quotes", "\"; rm 'x' `y` $z", ""},
                                         HostileName{"Backslash", "\\x1b", "\\\\x1b"},
                                         HostileName{"Long", std::string(248, 'n'), ""},
                                         HostileName{"Blank", " ", ""}),
                         [](const auto& row) { return std::string(row.param.name); });

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
