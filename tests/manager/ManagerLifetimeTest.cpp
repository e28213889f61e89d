#include "Edges.h"
#include "ManagerTest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"

#include <gio/gio.h>

#include <atomic>
#include <cstdlib>
#include <thread>

using namespace corvane::test;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;
using testing::KilledBySignal;

namespace {

constexpr char fnLinkModules[] =
    "insmod /usr/lib/modules/`uname -r`/kernel/net/bluetooth/bluetooth.ko;"
    "insmod "
    "/usr/lib/modules/`uname -r`/kernel/drivers/bluetooth/bluetooth_uart_driver/hci_uart_rtk.ko;"
    "insmod /usr/lib/modules/`uname -r`/kernel/net/bluetooth/rfcomm/rfcomm.ko;";

}  // namespace

class ManagerLifetime : public ManagerTest {};

TEST_F(ManagerLifetime, ConstructionReadsTheIdentityThenTakesTheLinesThenLoadsTheModules) {
    BluetoothManager::getInstance();
    EXPECT_EQ(happened({Kind::BUS}).front(),
              "org.corvane.Hardware /org/corvane/Hardware "
              "org.corvane.Hardware1.GetHardwareInfo ()");
    EXPECT_THAT(happened({Kind::GPIO, Kind::SHELL}),
                ElementsAre("export 48", "direction 48 1", "export 153", "direction 153 1",
                            "export 154", "direction 154 1", fnLinkModules));
}

TEST_F(ManagerLifetime, TwoThreadsAtOnceMakeOneManager) {
    const BluetoothManager* seen = nullptr;
    std::thread other([&] { seen = &BluetoothManager::getInstance(); });
    const BluetoothManager* mine = &BluetoothManager::getInstance();
    other.join();
    EXPECT_EQ(seen, mine);
    EXPECT_THAT(happened({Kind::SHELL}), ElementsAre(fnLinkModules));
}

TEST_F(ManagerLifetime, HostAndLibraryShareOneManager) {
    // The callback of a scan reaches the manager through the accessor as the library has it.
    bluez.setDevices({{"AA:BB:CC:DD:EE:FF", "Phone"}});
    BluetoothManager::getInstance().scanDevicesInfo();
    EXPECT_EQ(BluetoothManager::getInstance().getBluetoothDeviceListSize(ALL_DEVICES), 1U);
    EXPECT_THAT(happened({Kind::SHELL}), ElementsAre(fnLinkModules));
}

TEST_F(ManagerLifetime, ModelSixIsWiringOneAndTheProductFamilyIsNotAsked) {
    useBoard(6, 1);
    edges().paths = {"/sys/class/net/wlan0"};
    BluetoothManager::getInstance();
    EXPECT_THAT(log(), ElementsAre("DEBUG loadModules : loading Laird ST60-SIPT drivers..."));
    EXPECT_EQ(bluez.countCalls("GetHardwareInfo"), 1);
}

TEST_F(ManagerLifetime, ProductFamilyOneIsWiringTwo) {
    useBoard(3, 1);
    BluetoothManager::getInstance();
    EXPECT_THAT(happened({Kind::GPIO}), ElementsAre("export 49", "direction 49 1"));
}

TEST_F(ManagerLifetime, WithoutAnIdentityTheBoardIsWiringZero) {
    bluez.release("org.corvane.Hardware");
    BluetoothManager::getInstance();
    EXPECT_EQ(happened({Kind::GPIO}).front(), "export 48");
}

class StrangeIdentity : public ManagerTest, public testing::WithParamInterface<std::string> {};

TEST_P(StrangeIdentity, IsWiringZeroAndReachesNoShell) {
    if (GetParam().empty()) {
        bluez.fail("/org/corvane/Hardware", "*", "org.corvane.Error.Eeprom", "`reboot`");
    } else {
        bluez.reply("/org/corvane/Hardware", "*", GetParam());
    }
    manager().setBluetoothServices(true);
    EXPECT_THAT(
        happened({Kind::SHELL}),
        ElementsAre("start-stop-daemon -S -b -q -m -p /var/run/hw_bluez_hid.pid -x "
                    "/bin/hw_bluez_hid 0 'Model C100' --no-close;start-stop-daemon -S -b -q -m -p "
                    "/var/run/bluealsa.pid -x /bin/bluealsa;export DBUS_SESSION_BUS_ADDRESS="
                    "unix:path=/var/run/dbus/system_bus_socket;"));
    forget();
    EXPECT_TRUE(manager().enableGpio(true, false));
    EXPECT_EQ(happened({Kind::GPIO}).front(), "set 48 1");
    manager().setEnabled(true, false);
    EXPECT_EQ(bluez.countCalls("'Alias'"), 1) << "whatever the serial number, the radio works";
}

INSTANTIATE_TEST_SUITE_P(
    Answer, StrangeIdentity,
    testing::Values("", "(uint32 6,)", "('',)", "('\\xFF not XML; reboot',)",
                    "('<identity><model>`reboot`</model><family>$(reboot)</family>"
                    "<revision>1; reboot</revision><serial>`reboot`</serial></identity>',)",
                    "('<identity>" + std::string(100000, 'x') + "</identity>',)"));

TEST_F(ManagerLifetime, AFailedConstructionIsTriedAgain) {
    const std::string address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
    EXPECT_ANY_THROW(BluetoothManager::getInstance());
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_FALSE(BluetoothManager::getInstance().getEnabled());
}

TEST_F(ManagerLifetime, ExitWithoutARequestStopsTheServicesAndWakesTheSleepers) {
    EXPECT_EXIT(
        {
            manager();
            edges().echoShell = true;
            std::exit(3);
        },
        ExitedWithCode(3), "killall bluealsa;/sbin/kill_and_wait.sh hw_bluez_hid;\nnotify\n");
}

TEST_F(ManagerLifetime, ExitAfterARequestEndsInTerminate) {
    EXPECT_EXIT(
        {
            auto request = std::make_shared<ScanBluetoothRequest>(answers.callback());
            request->cancelRequest();
            start(request);
            answers.next();
            std::exit(3);
        },
        KilledBySignal(SIGABRT), "terminate called without an active exception");
}

class WithoutABus : public ManagerTest {
protected:
    WithoutABus() { edges().busMissing = true; }
};

TEST_F(WithoutABus, EveryOperationFailsWithALogRecord) {
    EXPECT_FALSE(manager().scanDevicesInfo());
    EXPECT_FALSE(manager().adapterScan(true));
    EXPECT_FALSE(manager().deletePairedDevice("AA:BB:CC:DD:EE:FF"));
    EXPECT_FALSE(manager().connectDevice("AA:BB:CC:DD:EE:FF"));
    EXPECT_FALSE(manager().agentRegister(true));
    EXPECT_FALSE(manager().deviceSetTrusted("AA:BB:CC:DD:EE:FF", true));
    EXPECT_THAT(log(), ElementsAre("ERROR scanDevicesInfo : no connection to the system bus",
                                   "ERROR bluezAdapterCallMethod : no connection to the system bus",
                                   "ERROR Not able to scan for new devices",
                                   "ERROR bluezAdapterCallMethod : no connection to the system bus",
                                   "ERROR Not able to remove device",
                                   "ERROR bluezDeviceCallMethod : no connection to the system bus",
                                   "ERROR Not able to connect device",
                                   "ERROR bluezAgentCallMethod : no connection to the system bus",
                                   "ERROR Not able to register agent",
                                   "ERROR bluezDeviceSetProperty : no connection to the system bus",
                                   "ERROR Not able to set Trusted property"));
}

TEST_F(WithoutABus, BringUpEndsBeforeTheAdapterAndWorksWhenTheBusIsBack) {
    EXPECT_FALSE(manager().setBluetoothComponents(true));
    EXPECT_EQ(log().back(),
              "ERROR setBluetoothComponents : Not able to get connection to system bus");
    EXPECT_EQ(happened({Kind::HCI}).back(), "HCIGETDEVINFO 0") << "no link mode, no class";
    EXPECT_FALSE(manager().setBluetoothComponents(false));
    edges().busMissing = false;
    EXPECT_TRUE(manager().setBluetoothComponents(true));
}

class BusReferences : public ManagerTest {
protected:
    // The process's shared connection, watched without holding it.
    void SetUp() override {
        manager();
        GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        g_object_weak_ref(
            G_OBJECT(shared),
            [](gpointer flag, GObject*) { *static_cast<std::atomic<bool>*>(flag) = true; }, &gone);
        g_object_unref(shared);
        ASSERT_FALSE(gone);
    }

    // GDBus's own thread may be the last to let go.
    bool goes() {
        return eventually([this] { return gone.load(); });
    }

    std::atomic<bool> gone{false};
};

TEST_F(BusReferences, EachTearDownDropsThatOfOneBringUp) {
    manager().setBluetoothComponents(true);
    manager().setBluetoothComponents(true);
    manager().setBluetoothComponents(false);
    manager().setBluetoothComponents(false);
    EXPECT_FALSE(gone) << "the constructor's own is left";
    EXPECT_TRUE(manager().adapterActivate(true));
}

TEST_F(BusReferences, TearDownsBeyondTheLastLeaveNoConnectionToUse) {
    manager().setBluetoothComponents(false);
    EXPECT_TRUE(goes());
    EXPECT_FALSE(manager().setBluetoothComponents(false));
    EXPECT_FALSE(manager().scanDevicesInfo());
    EXPECT_TRUE(manager().setBluetoothComponents(true)) << "and the next bring-up gets a new one";
    EXPECT_TRUE(manager().scanDevicesInfo());
}

TEST_F(BusReferences, ABusThatGoesIsLeftBehindByOffAndOn) {
    manager().setBluetoothComponents(true);
    bus.stop();
    ASSERT_TRUE(eventually([&] { return !manager().adapterActivate(true); }));
    PrivateBus newBus;
    FakeBluez newBluez(newBus.address());
    manager().setBluetoothComponents(false);
    EXPECT_TRUE(goes());
    EXPECT_TRUE(manager().setBluetoothComponents(true));
    EXPECT_EQ(newBluez.countCalls("'Powered', <true>"), 1);
}
