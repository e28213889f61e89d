// bluetoothd dies at any moment, and the system bus restarts under the host process. After each
// fault, off and on must cure everything. The tests share one process, because it has one manager.

#include "Board.h"
#include "Faults.h"
#include "Requests.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <thread>

#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char daemonProgram[] = "/usr/libexec/bluetooth/bluetoothd";
constexpr char killDaemon[] = "killall -9 bluetoothd";
// A stopped daemon holds a call until the daemon ends.
constexpr char stopDaemon[] = "killall -STOP bluetoothd";
constexpr char endBus[] =
    "killall dbus-daemon; while pidof dbus-daemon > /dev/null; do sleep 0.1; done";
// The identity service ends with its bus; later tests need it.
constexpr char newBus[] =
    "dbus-daemon --system --nopidfile; while pidof hardware-service > /dev/null; do sleep 0.1; "
    "done; "
    "setsid /usr/libexec/corvane-board/hardware-service /etc/corvane/identity.xml > /dev/null 2>&1 "
    "& "
    "until dbus-send --system --print-reply --dest=org.corvane.Hardware /org/corvane/Hardware "
    "org.corvane.Hardware1.GetHardwareInfo > /dev/null 2>&1; do sleep 0.1; done";

/// A host's HID proxy, which lives as long as the host.
hwcommon::DBusBluetoothHidProxy* hidService() {
    static const auto connection = sdbus::createSystemBusConnection();
    static hwcommon::DBusBluetoothHidProxy proxy(*connection);
    return &proxy;
}

class DaemonKilled : public Fault, public testing::WithParamInterface<int> {};

TEST_P(DaemonKilled, DuringBringUpIsCuredByOffAndOn) {
    manager().setEnabled(false, false);
    std::thread ending([] {
        EXPECT_TRUE(board::waitFor([] { return board::processes(daemonProgram) > 0; }));
        std::this_thread::sleep_for(milliseconds(GetParam()));
        onBoard(killDaemon);
    });
    records.clear();
    const auto start = std::chrono::steady_clock::now();
    manager().setEnabled(true, false);
    EXPECT_LT(std::chrono::steady_clock::now() - start, endsWithin);
    ending.join();
    EXPECT_EQ(board::processes(daemonProgram), 0U);
    EXPECT_EQ(board::fileContent("/tmp/bluetoothEnabled"), "1");
    std::cout << records.errors();
    recoversAfter();
}

INSTANTIATE_TEST_SUITE_P(AfterMilliseconds, DaemonKilled, testing::Values(0, 100, 250, 500),
                         testing::PrintToStringParamName());

using BusFault = Fault;

TEST_F(BusFault, DaemonThatCannotStartIsCuredByOffAndOn) {
    manager().setEnabled(false, false);
    const std::string program = daemonProgram;
    onBoard("mv " + program + " /tmp");
    records.clear();
    manager().setEnabled(true, false);
    const std::string errors = records.errors();
    EXPECT_EQ(errors.rfind("ERROR setBluetoothDaemon : Cannot start bluetooth daemon!\n"
                           "ERROR setBluetoothComponents : setBluetoothDaemon failed\n"
                           "ERROR bluezAdapterSetProperty Powered failed : ",
                           0),
              0U)
        << errors;
    recoversAfter("mv /tmp/bluetoothd " + program);
}

/// Fills the lists. Phone and loudspeaker are paired the first time.
void knowDevices() {
    BluetoothManager& manager = BluetoothManager::getInstance();
    manager.setEnabled(true, false);
    ASSERT_TRUE(manager.scanDevicesInfo());
    if (manager.searchForDevicesName(PAIRED_DEVICES, "Speaker")) return;
    ASSERT_TRUE(areNear({"Phone", "Speaker"}));
    for (const char* name : {"Phone", "Speaker"}) {
        ASSERT_TRUE(manager.pairDevice(manager.getDeviceMacAddress(ALL_DEVICES, name).c_str()))
            << name;
    }
    ASSERT_TRUE(manager.scanDevicesInfo());
}

/// Restores the board for later tests.
class NothingPaired : public testing::Environment {
public:
    void TearDown() override {
        BluetoothManager& manager = BluetoothManager::getInstance();
        manager.scanDevicesInfo();
        for (const auto& device : manager.getBluetoothDeviceInfoList(PAIRED_DEVICES)) {
            manager.deletePairedDevice(device.macAddress.c_str());
        }
        EXPECT_EQ(board::run("peers phone forget; peers speaker forget"), "");
        manager.setEnabled(false, false);
    }
};

struct RequestRow {
    const char* name;
    std::function<Started()> start;
    bool endsByItself;  // otherwise it runs until cancelled
};

class DaemonHang : public Fault, public testing::WithParamInterface<RequestRow> {};

TEST_P(DaemonHang, DuringARequestGivesOneAnswer) {
    knowDevices();
    onBoard(stopDaemon);
    Started request = GetParam().start();
    ASSERT_TRUE(request.wasAccepted());
    ASSERT_TRUE(board::waitFor([&] { return request.isRunning(); }));
    std::this_thread::sleep_for(milliseconds(300));
    onBoard(killDaemon);
    if (!GetParam().endsByItself) {
        EXPECT_FALSE(board::waitFor([&] { return !request.isRunning(); }, 500));
        manager().cancelRequest();
    }
    const int answer = request.answer();
    EXPECT_TRUE(answer == REQUEST_FAILED || answer == REQUEST_CANCELLED) << answer;
    EXPECT_NE(records.errors(), "");
    recoversAfter();
}

INSTANTIATE_TEST_SUITE_P(
    Request, DaemonHang,
    testing::Values(
        RequestRow{"Scan", [] { return Started::make<ScanBluetoothRequest>(); }, false},
        RequestRow{"Connect",
                   [] { return Started::make<ConnectBluetoothRequest>(nullptr, "Speaker"); }, true},
        RequestRow{"Disconnect",
                   [] { return Started::make<DisconnectBluetoothRequest>(nullptr, "Speaker"); },
                   false},
        RequestRow{"WaitForPhone",
                   [] { return Started::make<WaitBluetoothPairingRequest>("Phone"); }, true},
        RequestRow{"WaitForLoudspeaker",
                   [] { return Started::make<WaitBluetoothPairingRequest>("Speaker"); }, true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(BusFault, HostSurvivesABusRestartDuringACall) {
    knowDevices();
    ASSERT_TRUE(hidService() != nullptr);  // on the old bus
    onBoard(stopDaemon);
    Started request = Started::make<ConnectBluetoothRequest>(nullptr, "Speaker");
    ASSERT_TRUE(board::waitFor([&] { return request.isRunning(); }));
    onBoard(endBus);
    EXPECT_EQ(request.answer(), REQUEST_FAILED);
    onBoard(newBus);
    records.clear();
    EXPECT_FALSE(manager().adapterActivate(true));
    EXPECT_TRUE(records.has(log4cplus::ERROR_LOG_LEVEL, "Not able to set Powered property to 1"));
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_TRUE(
        records.has(log4cplus::ERROR_LOG_LEVEL, "Unable to get result for GetManagedObjects"));
    recoversAfter("killall -9 -q bluetoothd; true");
    ASSERT_TRUE(manager().scanDevicesInfo());
    EXPECT_TRUE(board::waitFor([] { return board::busNameOwned("org.corvane.BluetoothHid"); }));
    EXPECT_EQ(Started::make<ConnectBluetoothRequest>(hidService(), "Phone").answer(),
              REQUEST_SUCCESS)
        << records.errors();
}

TEST_F(BusFault, ListsAreEmptyWhenTheBusStopsDuringAScan) {
    manager().setEnabled(true, false);
    onBoard(stopDaemon);
    std::thread ending([] {
        std::this_thread::sleep_for(milliseconds(500));
        onBoard(endBus);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(manager().scanDevicesInfo());
    // The call's own timeout is 25 s.
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(24));
    EXPECT_EQ(manager().getBluetoothDeviceListSize(ALL_DEVICES), 0U);
    ending.join();

    // Off and on without any bus, then with one.
    manager().setEnabled(false, false);
    records.clear();
    manager().setEnabled(true, false);
    EXPECT_TRUE(records.has(log4cplus::ERROR_LOG_LEVEL,
                            "setBluetoothComponents : Not able to get connection to system bus"))
        << records.errors();
    recoversAfter(newBus);
}

}  // namespace

int main(int argc, char** argv) {
    // GLib's warnings end the test: there must be none.
    setenv("G_DEBUG", "fatal-criticals", 1);
    unlink("/tmp/bluetoothEnabled");
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new NothingPaired);
    const int status = RUN_ALL_TESTS();
    std::cout.flush();
    // After a request, destroying the manager ends in std::terminate(), so leave as hosts do.
    std::quick_exit(status);
}
