// The radio as the board shows it, from the first command after boot to off. The tests are steps of
// one session and run in this order.

#include "BoardTest.h"
#include "Requests.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

/// The lines that the wiring names.
std::vector<unsigned> enableLines() {
    static const std::vector<std::vector<unsigned>> lines{{48, 153, 154}, {}, {49}};
    return lines.at(static_cast<std::size_t>(board::wiring()));
}

bool runsAudioBridge() { return board::wiring() != 2; }

std::string attachProgram() {
    return board::wiring() == 1 ? "/usr/bin/hciattach" : "/usr/bin/rtk_hciattach";
}

/// Returns what the controller was sent during `action`, as btmon prints it.
template <class Action>
std::string traced(const Action& action) {
    board::run(
        "rm -f /tmp/btmon.snoop; start-stop-daemon -S -b -N 19 -m -p /tmp/btmon.pid -x "
        "/usr/bin/btmon -- "
        "-w /tmp/btmon.snoop");
    // The kernel's greeting to a new listener follows the 16-byte file header.
    EXPECT_TRUE(board::waitFor([] { return board::fileContent("/tmp/btmon.snoop").size() > 16; }));
    action();
    board::run("start-stop-daemon -K -R 60 -p /tmp/btmon.pid");
    return board::run("btmon -r /tmp/btmon.snoop");
}

using Radio = BoardTest;

TEST_F(Radio, OffAsTheFirstCommandRunsEveryStep) {
    manager().setEnabled(false, false);
    EXPECT_EQ(board::fileContent(flagFile), "0");
    EXPECT_TRUE(records.has("DEBUG setBluetoothComponents : Disabling all.."));
    // The constructor's connection still works, although no bring-up has taken one.
    EXPECT_TRUE(manager().scanDevicesInfo());
}

// Must run before the first switch-on, whose open descriptors keep the bluetooth module in use.
TEST_F(Radio, AirplaneModeUnloadsTheModulesAndLowersEveryLine) {
    manager().setAirplaneMode(true);
    for (const unsigned line : enableLines()) EXPECT_EQ(board::lineLevels()[line], 0) << line;
    EXPECT_EQ(board::run("lsmod").find("\nbluetooth "), std::string::npos) << board::run("lsmod");
    EXPECT_EQ(board::fileContent(flagFile), "0");
    manager().setAirplaneMode(false);
    for (const unsigned line : enableLines()) EXPECT_EQ(board::lineLevels()[line], 1) << line;
    EXPECT_NE(board::run("lsmod").find("\nbluetooth "), std::string::npos);
}

TEST_F(Radio, OnConfiguresTheAdapterAndTheController) {
    const std::string trace = traced([] { manager().setEnabled(true, false); });
    const std::string classNow = board::run("hciconfig hci0 class");

    expectSwitchedOn();
    const std::string linkMode = board::run("hciconfig hci0 lm");
    EXPECT_NE(linkMode.find("ACCEPT"), std::string::npos) << linkMode;
    EXPECT_TRUE(linkMode.find("CENTRAL") != std::string::npos ||
                linkMode.find("MASTER") != std::string::npos)
        << linkMode;

    // bluetoothd tells the kernel the agent's capability; the controller is told no scan, then the
    // class.
    EXPECT_NE(trace.find("Capability: NoInputNoOutput (0x03)"), std::string::npos);
    const std::size_t scanMode =
        trace.find("Scan enable: No Scans (0x00)",
                   trace.find("< HCI Command: Write Scan Enable (0x03|0x001a)"));
    const std::size_t deviceClass = trace.find(
        "Class: 0x002100", trace.find("< HCI Command: Write Class of Device (0x03|0x0024)"));
    EXPECT_LT(scanMode, deviceClass) << trace;
    EXPECT_NE(deviceClass, std::string::npos) << trace;
    // BlueZ writes its own class when the audio bridge registers its profiles, which takes time.
    if (!runsAudioBridge()) {
        EXPECT_NE(classNow.find("Class: 0x002100"), std::string::npos) << classNow;
    }

    for (const unsigned line : enableLines()) EXPECT_EQ(board::lineLevels()[line], 1) << line;
}

TEST_F(Radio, OnStartsTheDaemonsWithTheirPidFiles) {
    std::vector<std::string> daemons{"/usr/libexec/bluetooth/bluetoothd", "/usr/bin/hw_bluez_hid"};
    if (runsAudioBridge()) daemons.emplace_back("/usr/bin/bluealsa");
    if (board::wiring() != 1) daemons.emplace_back(attachProgram());
    for (const std::string& daemon : daemons) {
        const std::string name = daemon.substr(daemon.rfind('/') + 1);
        const std::string pidFile = "/var/run/" + name + ".pid";
        // start-stop-daemon returns before the background process has started.
        EXPECT_TRUE(board::waitFor([&] {
            return board::run("readlink /proc/$(cat " + pidFile + ")/exe") == daemon + "\n";
        })) << name
            << " has the process " << board::fileContent(pidFile);
        EXPECT_EQ(board::processes(daemon), 1U) << name;
    }
    EXPECT_EQ(board::processes(attachProgram()), 1U);
    EXPECT_EQ(board::processes("/usr/bin/bluealsa"), runsAudioBridge() ? 1U : 0U);
    EXPECT_TRUE(board::waitFor([] { return board::busNameOwned("org.corvane.BluetoothHid"); }));
}

TEST_F(Radio, ScanListsThePhoneAfterItsTime) {
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(Started::make<ScanBluetoothRequest>().answer(), REQUEST_SUCCESS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));

    ASSERT_TRUE(areNear({"Phone"}));
    const auto phone = manager().getDeviceInfo(ALL_DEVICES, "Phone");
    ASSERT_TRUE(phone) << board::run("bluetoothctl devices");
    EXPECT_EQ(phone->deviceClass, 0x5A020CU);
    const std::string shown = board::run("bluetoothctl info " + phone->macAddress);
    EXPECT_NE(shown.find("Name: Phone"), std::string::npos) << shown;
    char modalias[64];
    std::snprintf(modalias, sizeof modalias, "v%04Xp%04Xd%04X", unsigned{phone->vendorId},
                  unsigned{phone->productId}, unsigned{phone->versionId});
    EXPECT_NE(phone->vendorId, 0);
    EXPECT_NE(shown.find(modalias), std::string::npos) << shown;
}

TEST_F(Radio, CancellingAScanAnswersAtOnce) {
    Started scan = Started::make<ScanBluetoothRequest>();
    ASSERT_TRUE(board::waitFor([] { return board::adapterProperty("Discovering") == "true"; }));
    manager().cancelRequest();
    // A scan that runs to its end succeeds.
    const int answer = scan.answer();
    EXPECT_TRUE(answer == REQUEST_FAILED || answer == REQUEST_CANCELLED) << answer;
    EXPECT_TRUE(board::waitFor([] { return board::adapterProperty("Discovering") == "false"; }));
}

TEST_F(Radio, PairsAndForgetsADevice) {
    ASSERT_TRUE(areNear({"Speaker"}));
    const auto speaker = manager().getDeviceInfo(ALL_DEVICES, "Speaker");
    ASSERT_TRUE(speaker);
    ASSERT_TRUE(manager().pairDevice(speaker->macAddress.c_str())) << records.errors();
    ASSERT_TRUE(manager().scanDevicesInfo());
    EXPECT_TRUE(manager().searchForDevicesName(PAIRED_DEVICES, "Speaker"));
    EXPECT_NE(board::run("bluetoothctl info " + speaker->macAddress).find("Paired: yes"),
              std::string::npos);
    ASSERT_TRUE(manager().deletePairedDevice(speaker->macAddress.c_str())) << records.errors();
    ASSERT_TRUE(manager().scanDevicesInfo());
    EXPECT_FALSE(manager().searchForDevicesName(ALL_DEVICES, "Speaker"));
    EXPECT_FALSE(manager().deletePairedDevice(speaker->macAddress.c_str()));
    // The loudspeaker must forget too, or it would refuse the next pairing.
    EXPECT_EQ(board::run("peers speaker forget"), "");
    EXPECT_TRUE(records.has("ERROR Not able to remove device"));
}

TEST_F(Radio, OffLowersTheLinesOfItsWiringAndEndsTheDaemons) {
    manager().setEnabled(false, false);
    EXPECT_EQ(board::fileContent(flagFile), "0");
    for (const unsigned line : enableLines()) {
        EXPECT_EQ(board::lineLevels()[line], line == 48 ? 1 : 0) << line;
    }
    for (const std::string& program : {std::string("/usr/libexec/bluetooth/bluetoothd"),
                                       std::string("/usr/bin/hw_bluez_hid"), attachProgram()}) {
        EXPECT_TRUE(board::waitFor([&] { return board::processes(program) == 0; })) << program;
    }
    EXPECT_TRUE(board::waitFor([] { return board::processes("/usr/bin/bluealsa") == 0; }));
    EXPECT_TRUE(board::waitFor([] { return !board::busNameOwned("org.bluez"); }));
    EXPECT_TRUE(board::waitFor([] { return board::zombies() == 0; })) << board::zombies();
}

}  // namespace
