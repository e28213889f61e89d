#include "Program.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <sstream>

namespace corvane::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using Milliseconds = std::chrono::milliseconds;

constexpr char failed[] = "org.bluez.Error.Failed";

// Switching ------------------------------------------------------------------------------------

TEST_F(Corvanectl, SwitchesOnAndOffAndTellsWhenThereIsNothingToDo) {
    bluez.release("org.bluez");
    const Ran on = run({"on", "on", "status"});
    EXPECT_EQ(on.status, 0) << on.errors;
    EXPECT_THAT(on.output, ContainsRegex("Bluetooth is on\nBluetooth is already on; nothing was "
                                         "done\nSetting: +on\n"));
    EXPECT_THAT(on.output, HasSubstr("Corvane C100 AB12-CD34"));
    EXPECT_EQ(read("tmp/bluetoothEnabled"), "1");

    const Ran off = run({"off", "forced", "off"});
    EXPECT_EQ(off.status, 0) << off.errors;
    EXPECT_EQ(off.output, "Bluetooth is off\nBluetooth is already off; nothing was done\n");
    EXPECT_EQ(read("tmp/bluetoothEnabled"), "0");
}

TEST_F(Corvanectl, SwitchingOffWhereBluezDoesNotRunIsNoFailure) {
    bluez.release("org.bluez");
    const Ran off = run({"off"});
    EXPECT_EQ(off.status, 0) << off.errors;
}

TEST_F(Corvanectl, SwitchingWithErrorsInTheLogIsIncomplete) {
    bluez.fail("/org/bluez", "RegisterAgent", failed, "no agent today");
    const Ran on = run({"on"});
    EXPECT_EQ(on.status, 8);
    EXPECT_THAT(on.errors, HasSubstr("switched on, but the library logged 2 errors; doctor"));
    EXPECT_THAT(on.errors, HasSubstr("no agent today"));
    EXPECT_EQ(read("tmp/bluetoothEnabled"), "1");

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
    const Ran run2 = run({"airplane on", "airplane", "off"});
    EXPECT_EQ(run2.status, 0) << run2.errors;
    EXPECT_EQ(run2.output, "Airplane mode is on\nAirplane mode is off\n");
}

TEST_F(Corvanectl, LeavesTheServicesRunningUnlessTold) {
    ASSERT_EQ(run({"scan"}).status, 0);
    EXPECT_THAT(commands(), Not(HasSubstr("kill_and_wait.sh hw_bluez_hid")));
    ASSERT_EQ(run({"--teardown", "scan"}).status, 0);
    EXPECT_THAT(commands(), HasSubstr("killall bluealsa;/sbin/kill_and_wait.sh hw_bluez_hid;"));
}

// What stops it before anything is done ----------------------------------------------------------

TEST_F(Corvanectl, RefusesAMalformedSetting) {
    write("tmp/bluetoothEnabled", "on please");
    for (const char* command : {"on", "off", "status"}) {
        const Ran refused = run({command});
        EXPECT_EQ(refused.status, 4) << command;
        EXPECT_THAT(refused.errors, HasSubstr("/tmp/bluetoothEnabled holds no number"));
    }
    EXPECT_EQ(read("tmp/bluetoothEnabled"), "on please");
    EXPECT_THAT(commands(), Not(HasSubstr("rfkill")));
}

TEST_F(Corvanectl, DoesNotTouchTheRadioOfAnUnknownBoard) {
    setIdentity("<identity/>");
    const Ran unknown = run({"on"});
    EXPECT_EQ(unknown.status, 5);
    EXPECT_THAT(unknown.errors, HasSubstr("names no model"));
    bluez.release("org.corvane.Hardware");
    const Ran missing = run({"on"});
    EXPECT_EQ(missing.status, 5);
    EXPECT_THAT(missing.errors, HasSubstr("start the hardware service"));
    bus.stop();
    const Ran noBus = run({"on"});
    EXPECT_EQ(noBus.status, 3);
    EXPECT_THAT(noBus.errors, HasSubstr("no system bus"));
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
    const Ran refused = run(words);
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, HasSubstr(GetParam().message));
    EXPECT_THAT(refused.output, IsEmpty());
    EXPECT_THAT(commands(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CorvanectlMisuse,
    testing::Values(
        Misuse{"Unknown", {"scna"}, "unknown command \"scna\"; did you mean scan?"},
        Misuse{"Empty", {""}, "unknown command \"\""},
        Misuse{"Hostile", {"\x1b[2J\xff"}, "unknown command \"\\x1b[2J\\xff\""},
        Misuse{"LateOption", {"--json"}, "options stand before the first command"},
        Misuse{"NoName", {"pair"}, "pair: the device's name is missing; use: pair NAME"},
        Misuse{"EmptyName", {"pair", ""}, "pair: the device's name is missing"},
        Misuse{"NoChoice", {"airplane"}, "airplane: the argument is missing; use: airplane on|off"},
        Misuse{"WrongChoice", {"airplane", "maybe"}, "airplane: unknown argument \"maybe\""},
        Misuse{"TooMany", {"pair Living room"}, "\"room\" is one argument too many"},
        Misuse{"OpenQuote", {"pair \"Living"}, "a quote is not closed"},
        Misuse{"BadEscape", {"pair \"\\xZZ\""}, "malformed escape"},
        Misuse{"OpenEscape", {"pair \"\\u{1f600\""}, "malformed escape"},
        Misuse{"NoTimeout", {"watch-log", "x"}, "watch-log: an argument is missing"},
        Misuse{"BadTimeout", {"watch-log", "x", "-1", "--", "on"}, "TIMEOUT \"-1\" is no number"},
        Misuse{"NoSeparator", {"watch-log x 5 on"}, "\"on\" stands where -- has to"},
        Misuse{"NoInner", {"watch-log x 5 --"}, "watch-log: the command is missing"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Corvanectl, RefusesOptionsThatCannotWork) {
    EXPECT_EQ(run({"--nonsense", "status"}).status, 2);
    EXPECT_EQ(run({"--log-level", "loud", "status"}).status, 2);
    const Ran file = run({"--log-file", "/nowhere/log", "status"});
    EXPECT_EQ(file.status, 2);
    EXPECT_THAT(file.errors, HasSubstr("\"/nowhere/log\": No such file or directory"));
    const Ran config = run({"--log-config", "/nowhere/log.properties", "status"});
    EXPECT_EQ(config.status, 2);
    EXPECT_THAT(config.errors, HasSubstr("/nowhere/log.properties"));
}

// Sequences --------------------------------------------------------------------------------------

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
    EXPECT_EQ(run({}, R"(trust 'a "b" \ '\'c\')"
                      "\n")
                  .status,
              0);
    EXPECT_EQ(bluez.countCalls("'Trusted'"), 5);
}

// Devices ----------------------------------------------------------------------------------------

TEST_F(Corvanectl, ListsDevicesInWords) {
    const Ran all = run({"devices"});
    EXPECT_EQ(all.status, 0) << all.errors;
    EXPECT_THAT(all.output,
                ContainsRegex("00:11:22:33:44:01 +Phone +Phone, smartphone +0x004C +0xABCD"));
    EXPECT_THAT(all.output, ContainsRegex("Living room +Audio/video, loudspeaker +- +- +paired, "
                                          "playback"));
    EXPECT_THAT(all.output, ContainsRegex("Keyboard +Peripheral, keyboard +- +- +paired, connec"));
    const Ran paired = run({"devices", "connected"});
    EXPECT_THAT(paired.output, Not(HasSubstr("Phone")));
    EXPECT_THAT(paired.output, HasSubstr("Keyboard"));
    bluez.setDevices({});
    EXPECT_EQ(run({"devices all"}).output, "No devices\n");
    bluez.fail("/", "GetManagedObjects", failed, "busy");
    EXPECT_EQ(run({"devices"}).status, 6);
}

TEST_F(Corvanectl, ActsOnADeviceOfThatName) {
    EXPECT_EQ(run({"pair", "Phone", "trust", "Phone", "forget", "Phone"}).status, 0);
    EXPECT_EQ(bluez.countCalls("dev_00_11_22_33_44_01 org.bluez.Device1.Pair"), 1);
    EXPECT_EQ(bluez.countCalls("RemoveDevice"), 1);
    EXPECT_THAT(run({"find", "Living room"}).output,
                ContainsRegex("Class: +0x240414\nKind: +Audio/video, loudspeaker"));
    bluez.fail(phone.path(), "Pair", "org.bluez.Error.AuthenticationRejected", "rejected by peer");
    const Ran refused = run({"pair", "Phone"});
    EXPECT_EQ(refused.status, 6);
    EXPECT_THAT(refused.errors, HasSubstr("not paired with \"Phone\" (00:11:22:33:44:01)"));
    EXPECT_THAT(refused.errors, HasSubstr("rejected by peer"));
}

// Requests: every answer has its status
// ------------------------------------------------------------

TEST_F(Corvanectl, ScansAndTellsWhetherBluezDidDiscover) {
    const Ran scan = run({"scan"});
    EXPECT_EQ(scan.status, 0) << scan.errors;
    EXPECT_EQ(scan.output, "Scanned; BlueZ knows 3 devices\n");
    EXPECT_THAT(scan.errors, IsEmpty());  // no progress where nobody looks
    bluez.fail("*", "StartDiscovery", "org.bluez.Error.NotReady", "not ready");
    const Ran blind = run({"scan"});
    EXPECT_EQ(blind.status, 6);
    EXPECT_THAT(blind.errors, HasSubstr("not ready"));
}

TEST_F(Corvanectl, ConnectsAndDisconnectsPairedDevices) {
    const Ran connected = run({"connect", "Living room"});
    EXPECT_EQ(connected.status, 0) << connected.errors;
    bluez.reply("/org/corvane/BluetoothHid", "Connect", "('no such device',)");
    bluez.fail(speaker.path(), "Connect", failed, "gone");
    EXPECT_EQ(run({"connect", "Living room"}).status, 14);
    EXPECT_EQ(run({"connect", "Phone"}).status, 7);  // not paired
    const Ran odd = run({"connect", "Keyboard"});
    EXPECT_EQ(odd.status, 14);
    EXPECT_THAT(odd.errors, HasSubstr("this one is: Peripheral, keyboard"));

    Device playing = speaker;
    playing.connected = true;
    bluez.setDevices({playing});
    EXPECT_EQ(run({"disconnect", "Living room"}).status, 0);
    EXPECT_EQ(run({"disconnect", "Phone"}).status, 7);
}

TEST_F(Corvanectl, WaitsForPairingToEveryAnswer) {
    EXPECT_EQ(run({"wait-pair", "Living room"}).status, 0);
    EXPECT_EQ(run({"wait-pair", "Phone"}).status, 11);
    EXPECT_EQ(run({"wait-pair", "Keyboard"}).status, 14);
    Device unpaired = speaker;
    unpaired.paired = false;
    bluez.setDevices({unpaired});
    EXPECT_EQ(run({"wait-pair", "Living room"}).status, 15);
    bluez.setDevices({speaker});
    bluez.fail(speaker.path(), "Connect", failed, "refused");
    EXPECT_EQ(run({"wait-pair", "Living room"}).status, 13);
}

TEST_F(Corvanectl, ALineThatSaysCancelCancels) {
    setenv("CORVANE_TEST_SPEED", "0", 1);
    const Ran cancelled = run({}, "wait-pair Phone\ncancel\n");
    EXPECT_THAT(cancelled.status, testing::AnyOf(12, 14));
    EXPECT_THAT(cancelled.errors, HasSubstr("(REQUEST_"));
    EXPECT_EQ(run({"cancel"}).output, "No request is running\n");

    // A disconnection that fails is tried until then.
    Device playing = speaker;
    playing.connected = true;
    bluez.setDevices({playing});
    bluez.fail(speaker.path(), "Disconnect", failed, "not now");
    const Ran gaveUp = run({"--json"}, "disconnect \"Living room\"\ncancel\n");
    EXPECT_EQ(gaveUp.status, 14);
    EXPECT_EQ(gaveUp.json().at(0).at("result").at("answer"), "REQUEST_FAILED");
}

// The system log
// -----------------------------------------------------------------------------------

TEST_F(Corvanectl, WatchesTheSystemLogAroundACommand) {
    write("log-answer", "> it is up\n");
    const Ran found = run({"watch-log", "is up", "1000", "--", "devices connected", "cancel"});
    EXPECT_EQ(found.status, 0) << found.errors;
    EXPECT_THAT(found.output, HasSubstr("Keyboard"));
    EXPECT_THAT(found.output, HasSubstr("Found \"is up\"\nNo request is running\n"));
    EXPECT_THAT(commands(), HasSubstr("| grep 'is up'"));

    write("log-answer", "");
    const Ran late = run({"watch-log", "is up", "10", "--", "cancel"});
    EXPECT_EQ(late.status, 16);
    EXPECT_THAT(late.errors, HasSubstr("did not turn up in /var/log/messages within 10 ms"));
    EXPECT_EQ(run({"watch-log", "is up", "10", "--", "find", "Nobody"}).status, 7);
    EXPECT_EQ(run({"watch-log", "it's", "10", "--", "cancel"}).status, 2);
}

// The log
// ------------------------------------------------------------------------------------------

TEST_F(Corvanectl, LogsWhereItIsToldTo) {
    const std::string file = root / "log";
    const Ran quiet = run({"--log-file", file, "find", "Living room"});
    EXPECT_THAT(quiet.errors, IsEmpty());
    EXPECT_THAT(read("log"), HasSubstr("is a playback device"));
    const Ran loud = run({"--log-level", "trace", "wait-pair", "Keyboard"});
    EXPECT_THAT(loud.errors, HasSubstr("Searching for Keyboard MAC address"));
    write("log.properties",
          "log4cplus.rootLogger=DEBUG, F\nlog4cplus.appender.F=log4cplus::FileAppender\n"
          "log4cplus.appender.F.File=" +
              file + "2\n");
    EXPECT_EQ(run({"--log-config", root / "log.properties", "find", "Living room"}).status, 0);
    EXPECT_THAT(read("log2"), HasSubstr("is a playback device"));
}

}  // namespace
}  // namespace corvane::test
