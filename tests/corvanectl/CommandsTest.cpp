#include "Program.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include <signal.h>

namespace corvane::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char failed[] = "org.bluez.Error.Failed";

// Misuse

struct Misuse {
    const char* name;
    std::vector<std::string> words;
    const char* message;
};

class CorvanectlMisuse : public Corvanectl, public testing::WithParamInterface<Misuse> {};

TEST_P(CorvanectlMisuse, IsRefusedBeforeTheFirstCommandRuns) {
    const Ran refused = run(GetParam().words);
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, HasSubstr(GetParam().message));
    EXPECT_THAT(refused.output + commands(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Of, CorvanectlMisuse,
    testing::Values(
        Misuse{"Unknown", {"on", "scna"}, "unknown command \"scna\"; help lists"},
        Misuse{"UnknownOption", {"--nosuch", "on"}, "unknown option \"--nosuch\""},
        Misuse{"LateOption", {"on", "--json"}, "options go before the first command"},
        Misuse{"LogLevel", {"--log-level", "loud", "on"}, "loud not in {trace,"},
        Misuse{"LogFile", {"--log-file", "/no/log", "on"}, "\"/no/log\": No such file"},
        Misuse{"LogConfig", {"--log-config", "/no/log", "on"}, "\"/no/log\": No such file"},
        Misuse{"CommandLog", {"--command-log", "/no/log", "on"}, "\"/no/log\": No such file"},
        Misuse{"NoName", {"on", "pair"}, "pair: NAME is required; use: pair NAME"},
        Misuse{"EmptyName", {"on", "pair", ""}, "pair: NAME must not be empty"},
        Misuse{"WrongChoice", {"on", "airplane", "maybe"}, "maybe not in {on,off}"},
        Misuse{"WrongList", {"on", "devices", "nosuch"}, "not in {all,paired,connected}"},
        Misuse{"TooMany", {"on", "pair Living room"}, "unexpected argument room"},
        Misuse{"OpenQuote", {"on", "pair \"Living"}, "a quote is not closed"},
        Misuse{"BadEscape", {"on", "pair \"\\xZZ\""}, "malformed escape"},
        Misuse{"BadTimeout", {"on", "watch-log", "x", "-1", "--", "on"}, "-1 not in range"},
        Misuse{"NoSeparator", {"on", "watch-log x 5 on"}, "expected -- after the timeout"},
        Misuse{"NoInner", {"on", "watch-log x 5 --"}, "the command is missing"},
        Misuse{"ZeroByte", {"on", "watch-log \"a\\x00b\" 5 -- on"}, "(not \\x00)"}),
    [](const auto& row) { return std::string(row.param.name); });

// Commands on devices

struct Answer {
    const char* name;
    const char* line;
    int status;
    const char* says;               // a regular expression for what is printed
    const char* refused = nullptr;  // a method that BlueZ and the HID service refuse
};

class CorvanectlDevices : public Corvanectl, public testing::WithParamInterface<Answer> {};

TEST_P(CorvanectlDevices, AreNamedInTheAnswer) {
    if (GetParam().refused != nullptr) bluez.fail("*", GetParam().refused, failed, "not now");
    const Ran ran = run({}, GetParam().line);
    EXPECT_EQ(ran.status, GetParam().status);
    EXPECT_THAT(ran.output + ran.errors, ContainsRegex(GetParam().says));
}

INSTANTIATE_TEST_SUITE_P(
    Of, CorvanectlDevices,
    testing::Values(
        Answer{"Phone", "devices", 0, ":01 +Phone +Phone, smartphone +0x004C +0xABCD\n"},
        Answer{"Speaker", "devices", 0, "Living room +paired, playback +Audio/video, loud.* -\n"},
        Answer{"Connected", "devices connected", 0, "PRODUCT\n[^\n]*Keyboard +paired, connected "},
        Answer{"Unread", "devices", 6, "BlueZ did not give its devices", "GetManagedObjects"},
        Answer{"Find", "find Keyboard", 0, "Class: +0x000540\nKind: +Peripheral, keyboard\n"},
        Answer{"Pair", "pair Phone", 0, "^Paired with \"Phone\" .00:11:22:33:44:01.\n$"},
        Answer{"PairRefused", "pair Phone", 6, "pair with \"Phone\" .00:11.*not now", "Pair"},
        Answer{"Unknown", "forget Nobody", 7, "\"Nobody\" among the 3 known ones; scan"},
        Answer{"Scan", "scan", 0, "^Scanned; BlueZ knows 3 devices\n$"},
        Answer{"ScanRefused", "scan", 6, "did not start the discovery", "StartDiscovery"},
        Answer{"Connect", "connect 'Living room'", 0, "^Connected \"Living room\"\n$"},
        Answer{"ConnectUnpaired", "connect Phone", 7, "among the 2 paired ones; pair it"},
        Answer{"ConnectOther", "connect Keyboard", 14, "this one is: Peripheral, keyboard"},
        Answer{"ConnectRefused", "connect 'Living room'", 14, "room\" failed", "Connect"},
        Answer{"Disconnect", "disconnect Phone", 7, "among the 1 connected ones; devices c"},
        Answer{"WaitPair", "wait-pair 'Living room'", 0, "^Paired with \"Living room\"\n$"},
        Answer{"WaitPairInVain", "wait-pair Phone", 11, "did not pair and connect in time"},
        Answer{"WaitPairFailed", "wait-pair 'Living room'", 13, "not be connected", "Connect"}),
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
    const Ran on = run({"on", "on", "status"});
    EXPECT_EQ(on.status, 0) << on.errors;
    EXPECT_THAT(on.output, ContainsRegex("Bluetooth is on\nBluetooth is already on; nothing was "
                                         "done\nSetting: +on\nBoard: +Corvane C100 AB12CD34\n"));
    EXPECT_EQ(read("tmp/bluetoothEnabled"), "1");
    EXPECT_EQ(run({"off", "forced", "off"}).output,
              "Bluetooth is off\nBluetooth is already off; nothing was done\n");
    EXPECT_EQ(read("tmp/bluetoothEnabled"), "0");
}

TEST_F(Corvanectl, JudgesOnByWhatTheAdapterShows) {
    setAdapter("<true>", "<false>", "<'board'>");
    const Ran on = run({"on"});
    EXPECT_EQ(on.status, 8);
    EXPECT_THAT(on.errors, HasSubstr("switched on, but the adapter is not pairable, the adapter's "
                                     "name is \"board\"; doctor"));
    bluez.release("org.bluez");  // died since
    EXPECT_THAT(run({"on"}).errors, HasSubstr("already on by the setting, yet BlueZ is not on"));
}

TEST_F(Corvanectl, AirplaneModeNeedsTheAdapterGone) {
    const Ran stuck = run({"airplane", "on"});
    EXPECT_EQ(stuck.status, 8);
    EXPECT_THAT(stuck.errors, HasSubstr("hci0 is still there: switch off first"));
    std::filesystem::remove(root / "sys/class/bluetooth/hci0");
    EXPECT_EQ(run({"airplane on", "airplane", "off"}).output,
              "Airplane mode is on\nAirplane mode is off\n");
}

TEST_F(Corvanectl, LeavesTheServicesRunningUnlessTold) {
    ASSERT_EQ(run({"scan"}).status, 0);
    EXPECT_THAT(commands(), Not(HasSubstr("kill_and_wait.sh hw_bluez_hid")));
    ASSERT_EQ(run({"--teardown", "scan"}).status, 0);
    EXPECT_THAT(commands(), HasSubstr("killall bluealsa;/sbin/kill_and_wait.sh hw_bluez_hid;"));
}

TEST_F(Corvanectl, RefusesAMalformedSetting) {
    write("tmp/bluetoothEnabled", "on please");
    for (const char* command : {"on", "off", "status"}) {
        const Ran refused = run({command});
        EXPECT_EQ(refused.status, 4) << command;
        EXPECT_THAT(refused.errors, HasSubstr("/tmp/bluetoothEnabled does not hold a number"));
    }
    EXPECT_THAT(commands(), Not(HasSubstr("rfkill")));
}

TEST_F(Corvanectl, DoesNotTouchTheRadioOfAnUnknownBoard) {
    const auto refusal = [this] {
        const Ran ran = run({"on"});
        return std::to_string(ran.status) + ran.errors;
    };
    setIdentity("<identity/>");
    EXPECT_THAT(refusal(), ContainsRegex("^5.*names no model"));
    setIdentity("");
    EXPECT_THAT(refusal(), ContainsRegex("^5.*returns an empty one"));
    bluez.release("org.corvane.Hardware");
    EXPECT_THAT(refusal(), ContainsRegex("^5.*not on the system bus.*start the hardware service"));
    bus.stop();
    EXPECT_THAT(refusal(), ContainsRegex("^3.*no system bus"));
    EXPECT_THAT(commands(), IsEmpty());
}

// Descriptors, lines and logs

TEST_F(Corvanectl, ReadersOfItsOutputDoNotWaitForTheDaemonsThatItStarts) {
    setenv("CORVANE_TEST_DAEMON", "", 1);
    // The shell's reader ends when nobody holds the pipe any more.
    EXPECT_EQ(run({"on"}, "", "\"$@\" 2>&1 | cat").output, "Bluetooth is on\n");
    EXPECT_EQ(kill(std::stoi(read("daemon")), SIGKILL), 0);
    ASSERT_EQ(run({"--command-log", root / "chatter", "off"}).status, 0);
    EXPECT_THAT(read("chatter"), HasSubstr("Device setup complete"));
}

TEST_F(Corvanectl, WorksWithClosedDescriptors) {
    EXPECT_EQ(run({"scan"}, "", "\"$@\" <&-").status, 0);
    EXPECT_EQ(run({"off", "on"}, "", "\"$@\" <&- >&- 2>&-").status, 0);
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
    EXPECT_EQ(run({"trust", "a \"b\" \\ 'c'", "trust", "on"}).status, 0);
    EXPECT_EQ(run({R"(trust "a \"b\" \\ 'c'")", "trust on"}).status, 0);
    EXPECT_EQ(run({}, "trust 'a \"b\" \\ '\\'c\\'\n").status, 0);
    EXPECT_EQ(bluez.countCalls("'Trusted'"), 5);
}

TEST_F(Corvanectl, ALineThatSaysCancelCancels) {
    setenv("CORVANE_TEST_SPEED", "0", 1);
    const Ran early = run({}, "wait-pair Phone\ncancel\n");
    EXPECT_EQ(early.status, 12);
    EXPECT_THAT(early.errors, HasSubstr("\"Phone\" was cancelled\n"));
    EXPECT_EQ(run({"cancel"}).output, "No request is running\n");
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
    write("log-answer", "");
    const Ran late = run({"watch-log", "is up", "10", "--", "cancel"});
    EXPECT_EQ(late.status, 16);
    EXPECT_THAT(late.errors, HasSubstr("did not appear in /var/log/messages within 10 ms"));
    EXPECT_EQ(run({"watch-log", "is up", "10", "--", "find", "Nobody"}).status, 7);
}

TEST_F(Corvanectl, LogsWhereItIsToldTo) {
    EXPECT_THAT(run({"--log-file", root / "log", "find", "Living room"}).errors, IsEmpty());
    EXPECT_THAT(read("log"), HasSubstr("is a playback device"));
    EXPECT_THAT(run({"--log-level", "trace", "wait-pair", "Keyboard"}).errors,
                HasSubstr("Searching for Keyboard MAC address"));
    write("log.properties",
          "log4cplus.rootLogger=DEBUG, F\nlog4cplus.appender.F=log4cplus::FileAppender\n"
          "log4cplus.appender.F.File=" +
              (root / "log2").string() + "\n");
    run({"--log-config", root / "log.properties", "find", "Living room"});
    EXPECT_THAT(read("log2"), HasSubstr("is a playback device"));
}

TEST_F(Corvanectl, ReportsWithoutNamesAndAddressesOnDemand) {
    bluez.reply("/", "GetManagedObjects",
                "({objectpath '/org/bluez/hci0/dev_00_11_22_33_44_01': {'org.bluez.Device1': "
                "{'Address': <'00:11:22:33:44:01'>, 'Name': <'Anna\\'s phone'>}}},)");
    for (const std::string option : {"", "--anonymous "}) {
        const Ran ran = run({"report " + option + (root / "r.tar").string()});
        ASSERT_EQ(ran.status, 0) << ran.errors;
        const Ran content = run({}, "", "tar -xOf " + (root / "r.tar").string());
        EXPECT_THAT(content.output, HasSubstr("org.bluez.Device1"));
        EXPECT_THAT(content.output, HasSubstr(" warning"));  // doctor's last line
        for (const char* secret : {"Anna's phone", "11:22:33:44:01", "11_22_33_44_01"}) {
            EXPECT_EQ(content.output.find(secret) == std::string::npos, !option.empty()) << secret;
        }
    }
    EXPECT_THAT(run({"report", "/nowhere/r.tar"}).errors, ContainsRegex("/nowhere/r.tar.: tar"));
}

}  // namespace
}  // namespace corvane::test
