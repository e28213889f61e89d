#include "Program.h"

#include <csignal>
#include <cstdlib>

namespace corvane::test {
namespace {

constexpr char failed[] = "org.bluez.Error.Failed";

// One command, one answer

struct Answer {
    const char* name;
    Words words;
    int status;
    const char* says;               // a regular expression for what is printed
    const char* refused = nullptr;  // a method that BlueZ and the HID service refuse
};

class CorvanectlAnswers : public Corvanectl, public testing::WithParamInterface<Answer> {};

TEST_P(CorvanectlAnswers, WithStatusAndText) {
    if (GetParam().refused != nullptr) bluez.fail("*", GetParam().refused, failed, "not now");
    const Ran ran = run(GetParam().words);
    EXPECT_EQ(ran.status, GetParam().status);
    EXPECT_THAT(ran.output + ran.errors, ContainsRegex(GetParam().says));
    // Misuse is found before the first command runs.
    EXPECT_TRUE(ran.status != 2 || (ran.output + commands()).empty());
}

INSTANTIATE_TEST_SUITE_P(
    To, CorvanectlAnswers,
    testing::Values(
        Answer{"Unknown", {"on", "scna"}, 2, "unknown command \"scna\"; help lists"},
        Answer{"UnknownOption", {"--nosuch", "on"}, 2, "unknown option \"--nosuch\""},
        Answer{"LateOption", {"on", "--json"}, 2, "options go before the first command"},
        Answer{"LogLevel", {"--log-level", "loud", "on"}, 2, "loud not in .trace,"},
        Answer{"LogFile", {"--log-file", "/no/log", "on"}, 2, "\"/no/log\": No such file"},
        Answer{"LogConfig", {"--log-config", "/no/log", "on"}, 2, "\"/no/log\": No such file"},
        Answer{"CommandLog", {"--command-log", "/no/log", "on"}, 2, "\"/no/log\": No such file"},
        Answer{"NoName", {"on", "pair"}, 2, "pair: NAME is required; use: pair NAME"},
        Answer{"EmptyName", {"on", "pair", ""}, 2, "pair: NAME must not be empty"},
        Answer{"WrongChoice", {"on", "airplane", "maybe"}, 2, "maybe not in .on,off"},
        Answer{"WrongList", {"on", "devices", "nosuch"}, 2, "not in .all,paired,connected"},
        Answer{"TooMany", {"on", "pair Living room"}, 2, "unexpected argument room"},
        Answer{"OpenQuote", {"on", "pair \"Living"}, 2, "a quote is not closed"},
        Answer{"BadEscape", {"on", "pair \"\\xZZ\""}, 2, "malformed escape"},
        Answer{"ZeroByte", {"on", "watch-log \"a\\x00b\" 5 -- on"}, 2, "not .x00"},
        Answer{"BadTimeout", {"on", "watch-log", "x", "-1", "--", "on"}, 2, "-1 not in range"},
        Answer{"NoSeparator", {"on", "watch-log x 5 on"}, 2, "watch-log: on not in .--.; use"},
        Answer{"NoInner", {"on", "watch-log x 5 --"}, 2, "the command is missing"},
        Answer{"Cancel", {"cancel"}, 0, "^No request is running\n$"},
        Answer{"LogTrace", {"--log-level", "trace", "wait-pair Keyboard"}, 14, "Searching for Key"},
        Answer{"WatchLog", {"watch-log x 9 -- cancel"}, 16, "not appear in .*messages within 9 ms"},
        Answer{"WatchLogOf", {"watch-log x 9 -- find X"}, 7, "find: no device.*was not watched"},
        Answer{"Report", {"report", "/nowhere/r.tar"}, 6, "cannot write \"/nowhere/r.tar\": tar"},
        Answer{"Airplane", {"airplane", "on"}, 8, "hci0 is still there: switch off first"},
        Answer{"Phone", {"devices"}, 0, ":01 +Phone +Phone, smartphone +0x004C +0xABCD\n"},
        Answer{"Speaker", {"devices"}, 0, "Living room +paired, playback +Audio/video, loud.* -\n"},
        Answer{"Connected", {"devices connected"}, 0, "PRODUCT\n[^\n]*Keyboard +paired, connected"},
        Answer{"Unread", {"devices"}, 6, "BlueZ did not give its devices", "GetManagedObjects"},
        Answer{"Find", {"find Keyboard"}, 0, "Class: +0x000540\nKind: +Peripheral, keyboard\n"},
        Answer{"Pair", {"pair Phone"}, 0, "^Paired with \"Phone\" .00:11:22:33:44:01.\n$"},
        Answer{"PairRefused", {"pair Phone"}, 6, "pair with \"Phone\" .00:11.*not now", "Pair"},
        Answer{"Nobody", {"forget Nobody"}, 7, "\"Nobody\" among the 3 known ones; scan"},
        Answer{"Scan", {"scan"}, 0, "^Scanned; BlueZ knows 3 devices\n$"},
        Answer{"ScanRefused", {"scan"}, 6, "did not start the discovery", "StartDiscovery"},
        Answer{"Connect", {"connect", "Living room"}, 0, "^Connected \"Living room\"\n$"},
        Answer{"ConnectUnpaired", {"connect Phone"}, 7, "among the 2 paired ones; pair it"},
        Answer{"ConnectOther", {"connect Keyboard"}, 14, "this one is: Peripheral, keyboard"},
        Answer{"ConnectRefused", {"connect", "Living room"}, 14, "room\" failed", "Connect"},
        Answer{"Disconnect", {"disconnect Phone"}, 7, "among the 1 connected ones; devices c"},
        Answer{"WaitPair", {"wait-pair", "Living room"}, 0, "^Paired with \"Living room\"\n$"},
        Answer{"WaitPairInVain", {"wait-pair Phone"}, 11, "did not pair and connect in time"},
        Answer{"WaitPairFailed", {"wait-pair", "Living room"}, 13, "not be connected", "Connect"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Corvanectl, DevicesMayGoMeanwhile) {
    bluez.setDevices({{speaker.address, speaker.name, speaker.deviceClass}});
    EXPECT_EQ(run({"wait-pair", "Living room"}).status, 15);
    bluez.setDevices({});
    EXPECT_EQ(run({"devices all"}).output, "No devices\n");
}

// Switching

TEST_F(Corvanectl, SwitchesOnAndOffAndTellsWhenThereIsNothingToDo) {
    bluez.release("org.bluez");
    // What BlueZ refuses does no harm when the adapter shows the wanted state all the same.
    bluez.fail("/org/bluez/hci0", "Set", failed, "Busy", 1);
    const Ran ran =
        run({"on", "on", "status", "off", "forced", "off", "airplane on", "airplane", "off"});
    EXPECT_EQ(ran.status, 0) << ran.errors;
    EXPECT_THAT(ran.output,
                ContainsRegex("Bluetooth is on\nBluetooth is already on; nothing was done\n"
                              "Setting: +on\nBoard: +Corvane C100 AB12CD34\n.*"
                              "Bluetooth is off\nBluetooth is already off; nothing was done\n"
                              "Airplane mode is on\nAirplane mode is off\n"));
}

TEST_F(Corvanectl, JudgesOnByWhatTheAdapterShows) {
    bluez.reply("/org/bluez/hci0", "GetAll",
                "({'Powered': <true>, 'Pairable': <false>, 'Alias': <'board'>},)");
    const Ran on = run({"on"});
    EXPECT_EQ(on.status, 8);
    EXPECT_THAT(on.errors, HasSubstr("switched on, but the adapter is not pairable, the adapter's "
                                     "name is \"board\"; doctor"));
    write("setting", "1");
    bluez.release("org.bluez");  // died since
    EXPECT_THAT(run({"on"}).errors, HasSubstr("already on by the setting, yet BlueZ is not on"));
}

TEST_F(Corvanectl, LeavesTheServicesRunningUnlessTold) {
    ASSERT_EQ(run({"scan"}).status, 0);
    EXPECT_THAT(commands(), Not(HasSubstr("kill_and_wait.sh hw_bluez_hid")));
    ASSERT_EQ(run({"--teardown", "scan"}).status, 0);
    EXPECT_THAT(commands(), HasSubstr("killall bluealsa;/sbin/kill_and_wait.sh hw_bluez_hid;"));
}

TEST_F(Corvanectl, RefusesWhatItDoesNotUnderstandBeforeItTouchesTheRadio) {
    const auto refusal = [this](const char* command) {
        const Ran ran = run({command});
        return std::to_string(ran.status) + ran.errors;
    };
    write("setting", "on please");
    for (const char* command : {"on", "off", "status"}) {
        EXPECT_THAT(refusal(command), ContainsRegex("^4.*bluetoothEnabled does not hold a number"));
    }
    EXPECT_THAT(commands(), Not(HasSubstr("rfkill")));
    write("commands", "");
    setIdentity("<identity/>");
    EXPECT_THAT(refusal("on"), ContainsRegex("^5.*names no model"));
    setIdentity("");
    EXPECT_THAT(refusal("on"), ContainsRegex("^5.*returns an empty one"));
    bluez.release("org.corvane.Hardware");
    EXPECT_THAT(refusal("on"), ContainsRegex("^5.*not on the system bus.*start the hardware"));
    bus.stop();
    EXPECT_THAT(refusal("on"), ContainsRegex("^3.*no system bus"));
    EXPECT_THAT(commands(), IsEmpty());
}

// Descriptors, lines and logs

TEST_F(Corvanectl, ReadersOfItsOutputDoNotWaitForTheDaemonsThatItStarts) {
    setenv("CORVANE_TEST_DAEMON", "", 1);
    // The shell's reader ends when nobody holds the pipe any more.
    EXPECT_EQ(run({"on"}, "", "2>&1 | cat").output, "Bluetooth is on\n");
    EXPECT_EQ(kill(std::stoi(contentOf(root / "daemon")), SIGKILL), 0);
    unsetenv("CORVANE_TEST_DAEMON");
    ASSERT_EQ(run({"--command-log", "chatter", "on"}).status, 0);
    EXPECT_THAT(contentOf(root / "chatter"), HasSubstr("Device setup complete"));
    // Nor does it take what it opens itself for a closed descriptor.
    EXPECT_EQ(run({"scan"}, "", "<&-").status, 0);
    EXPECT_EQ(run({"off", "on"}, "", "<&- >&- 2>&-").status, 0);
}

TEST_F(Corvanectl, StopsAtTheFirstFailureUnlessToldToGoOn) {
    const std::string lines = "# a comment\n\nforget Nobody\nforget Phone\nnonsense\nquit\nscan\n";
    const Ran stopped = run({}, lines);
    EXPECT_EQ(stopped.status, 7);
    EXPECT_EQ(stopped.output, "");
    const Ran wentOn = run({"-k"}, lines);
    EXPECT_EQ(wentOn.status, 7);
    EXPECT_EQ(wentOn.output, "Forgot \"Phone\" (00:11:22:33:44:01)\n");
    EXPECT_THAT(wentOn.errors, HasSubstr("unknown command \"nonsense\""));
    EXPECT_EQ(bluez.countCalls("StartDiscovery"), 0);
}

TEST_F(Corvanectl, TakesNamesAsTheyAreOrQuotedInALine) {
    bluez.setDevices({{phone.address, "a \"b\" \\ 'c'", 0x5A020C}, {speaker.address, "on", 0}});
    run({"trust", "a \"b\" \\ 'c'", "trust", "on", R"(trust "a \"b\" \\ 'c'")", "trust on"});
    run({}, "trust 'a \"b\" \\ '\\'c\\'\n");
    EXPECT_EQ(bluez.countCalls("'Trusted'"), 5);
}

TEST_F(Corvanectl, ALineThatSaysCancelCancels) {
    unsetenv("CORVANE_TEST_HURRY");
    const Ran early = run({}, "wait-pair Phone\ncancel\n");
    EXPECT_EQ(early.status, 12);
    EXPECT_THAT(early.errors, HasSubstr("\"Phone\" was cancelled\n"));
    // A disconnection that fails is tried until then.
    Device playing = speaker;
    playing.connected = true;
    bluez.setDevices({playing});
    bluez.fail(speaker.path(), "Disconnect", failed, "not now");
    EXPECT_EQ(run({}, "disconnect \"Living room\"\ncancel\n").status, 12);
}

TEST_F(Corvanectl, WatchesTheSystemLogAroundACommand) {
    write("log-answer", "> it is up\n");
    const Ran found = run({"watch-log", "is up", "1000", "--", "devices connected", "cancel"});
    EXPECT_THAT(found.output, HasSubstr("Found \"is up\"\nNo request is running\n"));
    EXPECT_THAT(commands(), HasSubstr("| grep 'is up'"));
}

TEST_F(Corvanectl, LogsWhereItIsToldTo) {
    EXPECT_THAT(run({"--log-file", "log", "find", "Living room"}).errors, IsEmpty());
    EXPECT_THAT(contentOf(root / "log"), HasSubstr("is a playback device"));
    write("properties",
          "log4cplus.rootLogger=DEBUG, F\nlog4cplus.appender.F=log4cplus::FileAppender\n"
          "log4cplus.appender.F.File=log2\n");
    run({"--log-config", "properties", "find", "Living room"});
    EXPECT_THAT(contentOf(root / "log2"), HasSubstr("is a playback device"));
}

TEST_F(Corvanectl, ReportsWithoutNamesAndAddressesOnDemand) {
    bluez.reply("/", "GetManagedObjects",
                "({objectpath '/org/bluez/hci0/dev_00_11_22_33_44_01': {'org.bluez.Device1': "
                "{'Address': <'00:11:22:33:44:01'>, 'Name': <'Anna\\'s phone'>}}},)");
    for (const std::string option : {"", "--anonymous "}) {
        const Ran ran = run({"report " + option + "r.tar"});
        ASSERT_EQ(ran.status, 0) << ran.errors;
        ASSERT_EQ(std::system(("cd " + root.path().string() + "; tar -xOf r.tar > all").c_str()),
                  0);
        const std::string content = contentOf(root / "all");
        EXPECT_THAT(content, HasSubstr("org.bluez.Device1"));
        EXPECT_THAT(content, HasSubstr(" warning"));  // doctor's last line
        for (const char* secret : {"Anna's phone", "11:22:33:44:01", "11_22_33_44_01"}) {
            EXPECT_EQ(content.find(secret) == std::string::npos, !option.empty()) << secret;
        }
    }
}

}  // namespace
}  // namespace corvane::test
