// bluetoothd dies at any moment, and the system bus restarts under the host process. After each
// fault, off and on must cure everything.

#include "Faults.h"
#include "Requests.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

namespace {

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

class DaemonKilled : public Fault, public testing::WithParamInterface<int> {};

TEST_P(DaemonKilled, DuringBringUpIsCuredByOffAndOn) {
    manager().setEnabled(false, false);
    std::thread ending([] {
        EXPECT_TRUE(board::waitFor([] { return board::processes(daemonProgram) > 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(GetParam()));
        onBoard(killDaemon);
    });
    records.clear();
    switchTo(true);
    ending.join();
    EXPECT_EQ(board::processes(daemonProgram), 0U);
    std::cout << records.errors();
    recoversAfter();
}

INSTANTIATE_TEST_SUITE_P(AfterMilliseconds, DaemonKilled, testing::Values(0, 100, 250, 500),
                         testing::PrintToStringParamName());

class BusFault : public Fault {
protected:
    /// Switches on and pairs phone and loudspeaker, unless another program has paired them.
    void SetUp() override {
        manager().setEnabled(true, false);
        ASSERT_TRUE(areNear({"Phone", "Speaker"}));
        for (const char* name : {"Phone", "Speaker"}) {
            if (manager().searchForDevicesName(PAIRED_DEVICES, name)) continue;
            const std::string address = manager().getDeviceMacAddress(ALL_DEVICES, name);
            ASSERT_TRUE(manager().pairDevice(address.c_str())) << name;
        }
        ASSERT_TRUE(manager().scanDevicesInfo());
    }

    void TearDown() override {
        manager().scanDevicesInfo();
        for (const auto& device : manager().getBluetoothDeviceInfoList(PAIRED_DEVICES)) {
            manager().deletePairedDevice(device.macAddress.c_str());
        }
        onBoard("peers phone forget; peers speaker forget");
        manager().setEnabled(false, false);
    }

    /// Starts a connect that BlueZ does not answer.
    Started hangingConnect() {
        onBoard(stopDaemon);
        Started request = Started::make<ConnectBluetoothRequest>(nullptr, "Speaker");
        EXPECT_TRUE(board::waitFor([&] { return request.isRunning(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return request;
    }
};

TEST_F(Fault, DaemonThatCannotStartIsCuredByOffAndOn) {
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

TEST_F(BusFault, DaemonThatHangsAndDiesDuringARequestGivesOneAnswer) {
    Started request = hangingConnect();
    onBoard(killDaemon);
    EXPECT_EQ(request.answer(), REQUEST_FAILED);
    EXPECT_TRUE(records.has("ERROR Not able to connect device")) << records.errors();
    recoversAfter();
}

TEST_F(BusFault, HostSurvivesABusRestartDuringACall) {
    ASSERT_TRUE(hidService() != nullptr);  // on the old bus
    Started request = hangingConnect();
    onBoard(endBus);
    EXPECT_EQ(request.answer(), REQUEST_FAILED);
    onBoard(newBus);
    records.clear();
    EXPECT_FALSE(manager().adapterActivate(true));
    EXPECT_TRUE(records.has("ERROR Not able to set Powered property to 1"));
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_TRUE(records.has("ERROR Unable to get result for GetManagedObjects"));
    recoversAfter("killall -9 -q bluetoothd; true");
    ASSERT_TRUE(manager().scanDevicesInfo());
    EXPECT_TRUE(board::waitFor([] { return board::busNameOwned("org.corvane.BluetoothHid"); }));
    EXPECT_EQ(Started::make<ConnectBluetoothRequest>(hidService(), "Phone").answer(),
              REQUEST_SUCCESS)
        << records.errors();
}

}  // namespace
