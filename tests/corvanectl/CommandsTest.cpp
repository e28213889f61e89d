#include "Program.h"

#include <gmock/gmock.h>

#include <cstdlib>

namespace corvane::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char failed[] = "org.bluez.Error.Failed";

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

    const Ran off = run({"off", "forced", "off"});
    EXPECT_EQ(off.status, 0) << off.errors;
    EXPECT_EQ(off.output, "Bluetooth is off\nBluetooth is already off; nothing was done\n");
    EXPECT_EQ(read("tmp/bluetoothEnabled"), "0");
}

TEST_F(Corvanectl, JudgesOnByWhatTheAdapterShows) {
    setAdapter("<true>", "<false>", "<'board'>");
    const Ran on = run({"on"});
    EXPECT_EQ(on.status, 8);
    EXPECT_THAT(on.errors, HasSubstr("switched on, but the adapter is not pairable, the adapter's "
                                     "name is \"board\"; doctor"));
    // The setting says on, but BlueZ has died since.
    bluez.release("org.bluez");
    const Ran again = run({"on"});
    EXPECT_EQ(again.status, 8);
    EXPECT_THAT(again.errors, HasSubstr("already on by the setting, yet BlueZ is not on the bus"));
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

// Descriptors

TEST_F(Corvanectl, ReadersOfItsOutputDoNotWaitForTheDaemonsThatItStarts) {
    setenv("CORVANE_TEST_DAEMON", "", 1);
    // The shell's reader ends when nobody holds the pipe any more.
    const Ran piped = run({"on"}, "", "\"$@\" 2>&1 | cat");
    EXPECT_EQ(piped.output, "Bluetooth is on\n");
    EXPECT_TRUE(daemonRuns());
    ASSERT_EQ(run({"--command-log", root / "chatter", "off"}).status, 0);
    EXPECT_THAT(read("chatter"), HasSubstr("Device setup complete"));
    EXPECT_EQ(run({"--command-log", "/nowhere/log", "on"}).status, 2);
}

TEST_F(Corvanectl, WorksWithClosedDescriptors) {
    EXPECT_EQ(run({"scan"}, "", "\"$@\" <&-").status, 0);
    EXPECT_EQ(run({"off", "on"}, "", "\"$@\" <&- >&- 2>&-").status, 0);
}

// What stops it before anything is done

TEST_F(Corvanectl, RefusesAMalformedSetting) {
    write("tmp/bluetoothEnabled", "on please");
    for (const char* command : {"on", "off", "status"}) {
        const Ran refused = run({command});
        EXPECT_EQ(refused.status, 4) << command;
        EXPECT_THAT(refused.errors, HasSubstr("/tmp/bluetoothEnabled holds no number"));
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

struct Misuse {
    const char* name;
    std::vector<std::string> words;
    const char* message;
};

class CorvanectlMisuse : public Corvanectl, public testing::WithParamInterface<Misuse> {};

TEST_P(CorvanectlMisuse, IsRefusedBeforeTheFirstCommandRuns) {
    std::vector<std::string> words{"on"};
    words.insert(words.end(), GetParam().words.begin(), GetParam().words.end());
    if (words[1] == "--nosuch") words.erase(words.begin());
    const Ran refused = run(words);
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, HasSubstr(GetParam().message));
    EXPECT_THAT(refused.output, IsEmpty());
    EXPECT_THAT(commands(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CorvanectlMisuse,
    testing::Values(
        Misuse{"Unknown", {"scna"}, "unknown command \"scna\"; help lists"},
        Misuse{"UnknownOption", {"--nosuch", "on"}, "unknown option \"--nosuch\""},
        Misuse{"Hostile", {"\x1b[2J\xff"}, "unknown command \"\\x1B[2J\\xFF\""},
        Misuse{"LateOption", {"--json"}, "options go before the first command"},
        Misuse{"NoName", {"pair"}, "pair: NAME is required; use: pair NAME"},
        Misuse{"EmptyName", {"pair", ""}, "pair: NAME must not be empty"},
        Misuse{"WrongChoice", {"airplane", "maybe"}, "maybe not in {on,off}"},
        Misuse{"WrongList", {"devices", "nosuch"}, "nosuch not in {all,paired,connected}"},
        Misuse{"TooMany", {"pair Living room"}, "unexpected argument room"},
        Misuse{"OpenQuote", {"pair \"Living"}, "a quote is not closed"},
        Misuse{"BadEscape", {"pair \"\\xZZ\""}, "malformed escape"},
        Misuse{"BadTimeout", {"watch-log", "x", "-1", "--", "on"}, "Value -1 not in range"},
        Misuse{"NoSeparator", {"watch-log x 5 on"}, "expected -- after the timeout"},
        Misuse{"NoInner", {"watch-log x 5 --"}, "the command is missing"},
        Misuse{"ZeroByte", {"watch-log \"a\\x00b\" 5 -- on"}, "not \\x00"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Corvanectl, RefusesOptionsThatCannotWork) {
    EXPECT_EQ(run({"--log-level", "loud", "status"}).status, 2);
    for (const char* option : {"--log-file", "--log-config"}) {
        const Ran refused = run({option, "/nowhere/log", "status"});
        EXPECT_EQ(refused.status, 2);
        EXPECT_THAT(refused.errors, HasSubstr("\"/nowhere/log\": No such file or directory"));
    }
}

// Sequences

TEST_F(Corvanectl, StopsAtTheFirstFailureUnlessToldToGoOn) {
    const std::string lines = "# a comment\n\nforget Nobody\nforget Phone\nnonsense\nquit\nscan\n";
    const Ran stopped = run({}, lines);
    EXPECT_EQ(stopped.status, 7);
    EXPECT_EQ(stopped.output, "");
    EXPECT_THAT(stopped.errors, HasSubstr("no device named \"Nobody\" among the 3 known ones"));

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

// Devices

TEST_F(Corvanectl, ListsDevicesInWords) {
    const Ran all = run({"devices"});
    EXPECT_THAT(all.output,
                ContainsRegex("00:11:22:33:44:01 +Phone +Phone, smartphone +0x004C +0xABCD\n"
                              ".*Living room +paired, playback +Audio/video, loudspeaker +- +-"));
    const Ran connected = run({"devices", "connected", "find", "Living room"});
    EXPECT_THAT(connected.output, Not(HasSubstr("Phone")));
    EXPECT_THAT(connected.output, ContainsRegex("Keyboard +paired, connected +Peripheral, keyb"));
    EXPECT_THAT(connected.output, ContainsRegex("Class: +0x240414\nKind: +Audio/video, loudspea"));
    bluez.setDevices({});
    EXPECT_EQ(run({"devices all"}).output, "No devices\n");
    bluez.fail("/", "GetManagedObjects", failed, "busy");
    EXPECT_EQ(run({"devices"}).status, 6);
}

TEST_F(Corvanectl, ActsOnADeviceOfThatName) {
    EXPECT_EQ(run({"pair", "Phone", "trust", "Phone", "forget", "Phone"}).status, 0);
    EXPECT_EQ(bluez.countCalls("dev_00_11_22_33_44_01 org.bluez.Device1.Pair"), 1);
    EXPECT_EQ(bluez.countCalls("RemoveDevice"), 1);
    bluez.fail(phone.path(), "Pair", "org.bluez.Error.AuthenticationRejected", "rejected by peer");
    const Ran refused = run({"pair", "Phone"});
    EXPECT_EQ(refused.status, 6);
    EXPECT_THAT(refused.errors, HasSubstr("cannot pair with \"Phone\" (00:11:22:33:44:01)"));
    EXPECT_THAT(refused.errors, HasSubstr("rejected by peer"));
}

TEST_F(Corvanectl, EveryAnswerOfARequestHasItsStatus) {
    EXPECT_EQ(run({"scan"}).output, "Scanned; BlueZ knows 3 devices\n");
    EXPECT_EQ(run({"connect", "Living room"}).status, 0);
    EXPECT_EQ(run({"connect", "Phone"}).status, 7);  // not paired
    EXPECT_EQ(run({"disconnect", "Living room"}).status, 7);
    EXPECT_EQ(run({"wait-pair", "Living room"}).status, 0);
    EXPECT_EQ(run({"wait-pair", "Phone"}).status, 11);
    const Ran odd = run({"connect", "Keyboard"});
    EXPECT_EQ(odd.status, 14);
    EXPECT_THAT(odd.errors, HasSubstr("this one is: Peripheral, keyboard"));
    bluez.fail(speaker.path(), "Connect", failed, "gone");
    EXPECT_EQ(run({"wait-pair", "Living room"}).status, 13);
    bluez.reply("/org/corvane/BluetoothHid", "Connect", "('no such device',)");
    EXPECT_EQ(run({"connect", "Living room"}).status, 14);
    bluez.fail("*", "StartDiscovery", "org.bluez.Error.NotReady", "not ready");
    EXPECT_EQ(run({"scan"}).status, 6);
    Device unpaired = speaker;
    unpaired.paired = false;
    bluez.setDevices({unpaired});
    EXPECT_EQ(run({"wait-pair", "Living room"}).status, 15);
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

// Logs

TEST_F(Corvanectl, WatchesTheSystemLogAroundACommand) {
    write("log-answer", "> it is up\n");
    const Ran found = run({"watch-log", "is up", "1000", "--", "devices connected", "cancel"});
    EXPECT_EQ(found.status, 0) << found.errors;
    EXPECT_THAT(found.output, HasSubstr("Found \"is up\"\nNo request is running\n"));
    EXPECT_THAT(commands(), HasSubstr("| grep 'is up'"));
    write("log-answer", "");
    const Ran late = run({"watch-log", "is up", "10", "--", "cancel"});
    EXPECT_EQ(late.status, 16);
    EXPECT_THAT(late.errors, HasSubstr("did not turn up in /var/log/messages within 10 ms"));
    EXPECT_EQ(run({"watch-log", "is up", "10", "--", "find", "Nobody"}).status, 7);
}

TEST_F(Corvanectl, LogsWhereItIsToldTo) {
    const Ran quiet = run({"--log-file", root / "log", "find", "Living room"});
    EXPECT_THAT(quiet.errors, IsEmpty());
    EXPECT_THAT(read("log"), HasSubstr("is a playback device"));
    const Ran loud = run({"--log-level", "trace", "wait-pair", "Keyboard"});
    EXPECT_THAT(loud.errors, HasSubstr("Searching for Keyboard MAC address"));
    write("log.properties",
          "log4cplus.rootLogger=DEBUG, F\nlog4cplus.appender.F=log4cplus::FileAppender\n"
          "log4cplus.appender.F.File=" +
              (root / "log2").string() + "\n");
    EXPECT_EQ(run({"--log-config", root / "log.properties", "find", "Living room"}).status, 0);
    EXPECT_THAT(read("log2"), HasSubstr("is a playback device"));
}

TEST_F(Corvanectl, ReportsWhatAnEngineerNeedsWithoutNamesOnDemand) {
    bluez.reply("/", "GetManagedObjects",
                "({objectpath '/org/bluez/hci0/dev_00_11_22_33_44_01': {'org.bluez.Device1': "
                "{'Address': <'00:11:22:33:44:01'>, 'Name': <'Anna\\'s phone'>}}},)");
    for (const bool hidden : {false, true}) {
        std::vector<std::string> words{"report"};
        if (hidden) words.emplace_back("--anonymous");
        words.push_back(root / "r.tar");
        const Ran ran = run(words);
        ASSERT_EQ(ran.status, 0) << ran.errors;
        const Ran content = run({}, "", "tar -xOf " + (root / "r.tar").string());
        EXPECT_THAT(content.output, HasSubstr("org.bluez.Device1"));
        EXPECT_THAT(content.output, HasSubstr(" warning"));  // doctor's last line
        EXPECT_EQ(content.output.find("Anna's phone") == std::string::npos, hidden);
        EXPECT_EQ(content.output.find("11:22:33:44:01") == std::string::npos, hidden);
        EXPECT_EQ(content.output.find("11_22_33_44_01") == std::string::npos, hidden);
    }
    EXPECT_THAT(run({"report", "/nowhere/r.tar"}).errors, ContainsRegex("/nowhere/r.tar.: tar"));
}

}  // namespace
}  // namespace corvane::test
