#include "ManagerTest.h"

#include <cstdio>
#include <cstdlib>
#include <future>
#include <set>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace corvane::test;
using namespace testing;

class ManagerLifetime : public ManagerTest {};

TEST_F(ManagerLifetime, TwoThreadsAtOnceMakeOneManagerInOrder) {
    auto others = std::async(std::launch::async, [] { return &BluetoothManager::getInstance(); });
    EXPECT_EQ(&BluetoothManager::getInstance(), others.get());
    EXPECT_EQ(happened({Kind::BUS}).front(),
              "org.corvane.Hardware /org/corvane/Hardware "
              "org.corvane.Hardware1.GetHardwareInfo ()");
    EXPECT_THAT(happened({Kind::GPIO, Kind::SHELL}),
                ElementsAre("export 48", "direction 48 1", "export 153", "direction 153 1",
                            "export 154", "direction 154 1", StartsWith("insmod ")));
    EXPECT_THAT(edges().interruptible, IsEmpty()) << "no signal interrupts the construction";
}

TEST_F(ManagerLifetime, ModelSixSelectsWiringOneWithoutAskingForTheFamily) {
    useBoard(6, 1);
    edges().paths = {"/sys/class/net/wlan0"};
    BluetoothManager::getInstance();
    EXPECT_THAT(log(), ElementsAre("DEBUG loadModules : loading Laird ST60-SIPT drivers..."));
    EXPECT_EQ(bluez.countCalls("GetHardwareInfo"), 1);
}

TEST_F(ManagerLifetime, ProductFamilyOneSelectsWiringTwo) {
    useBoard(3, 1);
    BluetoothManager::getInstance();
    EXPECT_THAT(happened({Kind::GPIO}), ElementsAre("export 49", "direction 49 1"));
}

TEST_F(ManagerLifetime, UsesWiringZeroWithoutAnIdentity) {
    bluez.release("org.corvane.Hardware");
    BluetoothManager::getInstance();
    EXPECT_EQ(happened({Kind::GPIO}).front(), "export 48");
}

TEST_F(ManagerLifetime, WaitsOnlyOnceForASilentHardwareService) {
    bluez.ignore("/org/corvane/Hardware", "*");
    const auto start = std::chrono::steady_clock::now();
    BluetoothManager::getInstance();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(24))
        << "the bus's own limit is 25 s";
    EXPECT_EQ(bluez.countCalls("GetHardwareInfo"), 1);
    EXPECT_EQ(happened({Kind::GPIO}).front(), "export 48");
}

class StrangeIdentity : public ManagerTest, public WithParamInterface<std::string> {};

TEST_P(StrangeIdentity, SelectsWiringZeroAndReachesNoShell) {
    if (GetParam().empty()) {
        bluez.fail("/org/corvane/Hardware", "*", "org.corvane.Error.Eeprom", "`reboot`");
    } else {
        bluez.reply("/org/corvane/Hardware", "*", GetParam());
    }
    manager().setBluetoothServices(true);
    EXPECT_THAT(happened({Kind::SHELL}),
                ElementsAre(AllOf(HasSubstr("/bin/hw_bluez_hid 0 'Model C100' --no-close;"),
                                  Not(HasSubstr("reboot")))));
    forget();
    EXPECT_TRUE(manager().enableGpio(true, false));
    EXPECT_EQ(happened({Kind::GPIO}).front(), "set 48 1");
    manager().setEnabled(true, false);
    EXPECT_EQ(bluez.countCalls("'Alias'"), 1) << "the radio works with any serial number";
}

INSTANTIATE_TEST_SUITE_P(
    Answer, StrangeIdentity,
    Values("", "(uint32 6,)", "('',)", "('\\xFF not XML; reboot',)",
           "('<identity><model>`reboot`</model><family>$(reboot)</family>"
           "<revision>1; reboot</revision><serial>`reboot`</serial></identity>',)",
           "('<identity>" + std::string(100000, 'x') + "</identity>',)"));

TEST_F(ManagerLifetime, RetriesAfterAFailedConstruction) {
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

class Descriptors : public ManagerTest {
protected:
    /// The descriptors that a new program would inherit.
    static std::set<int> inherited() {
        std::set<int> result;
        for (int descriptor = 0; descriptor < 1024; ++descriptor) {
            const int flags = fcntl(descriptor, F_GETFD);
            if (flags != -1 && (flags & FD_CLOEXEC) == 0) result.insert(descriptor);
        }
        return result;
    }
};

TEST_F(Descriptors, AreNotInheritedByChildren) {
    const auto before = inherited();
    manager().setEnabled(true, false);
    EXPECT_EQ(inherited(), before);
}

TEST_F(Descriptors, ZeroToTwoStayFreeWhenTheHostClosedThem) {
    EXPECT_EXIT(
        {
            for (int descriptor = 0; descriptor < 3; ++descriptor) close(descriptor);
            manager().setEnabled(true, false);
            // GDBus's thread closes what a call needed a moment later.
            const bool free = eventually([] {
                return fcntl(0, F_GETFD) == -1 && fcntl(1, F_GETFD) == -1 &&
                       fcntl(2, F_GETFD) == -1;
            });
            std::_Exit(free ? 3 : 1);
        },
        ExitedWithCode(3), "");
}

TEST_F(Descriptors, RecordLocksOfTheHostSurvive) {
    EXPECT_EXIT(
        {
            FILE* const file = std::tmpfile();
            dup2(fileno(file), STDERR_FILENO);
            struct flock lock {};
            lock.l_type = F_WRLCK;
            fcntl(STDERR_FILENO, F_SETLK, &lock);
            manager().adapterActivate(true);
            const pid_t other = fork();
            if (other == 0) {
                fcntl(STDERR_FILENO, F_GETLK, &lock);
                std::_Exit(lock.l_type == F_UNLCK ? 1 : 3);
            }
            int status = 0;
            waitpid(other, &status, 0);
            std::_Exit(WEXITSTATUS(status));
        },
        ExitedWithCode(3), "");
}

class WithoutABus : public ManagerTest {
protected:
    WithoutABus() { edges().busMissing = true; }
};

TEST_F(WithoutABus, OperationsFailAndAScanEmptiesTheListsButRunsNoLoop) {
    EXPECT_FALSE(manager().connectDevice("AA:BB:CC:DD:EE:FF"));
    manager().addNewDeviceToList(ALL_DEVICES, {});
    manager().addNewDeviceToList(CONNECTED_DEVICES, {});
    const int& runs = addHostsSource();
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(manager().getBluetoothDeviceListSize(ALL_DEVICES), 0U);
    EXPECT_EQ(manager().getBluetoothDeviceListSize(CONNECTED_DEVICES), 0U);
    EXPECT_THAT(log(), ElementsAre("ERROR bluezDeviceCallMethod : no connection to the system bus",
                                   "ERROR Not able to connect device",
                                   "ERROR Unable to get result for GetManagedObjects"));
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

class BusReferences : public ManagerTest {};

TEST_F(BusReferences, SwitchingOffDropsOnlyABringUpsReference) {
    manager();
    GDBusConnection* const shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    const auto references = [shared] {
        return static_cast<int>(g_atomic_int_get(&G_OBJECT(shared)->ref_count));
    };
    const auto before = references();
    // GDBus's thread may hold one for a moment.
    const auto becomes = [&](int more) {
        return eventually([&] { return references() == before + more; });
    };
    manager().setBluetoothComponents(false);
    EXPECT_TRUE(becomes(0)) << "switched off first after boot";
    EXPECT_TRUE(manager().adapterActivate(true));
    manager().setBluetoothComponents(true);
    manager().setBluetoothComponents(true);
    EXPECT_TRUE(becomes(2));
    manager().setBluetoothComponents(false);
    EXPECT_TRUE(becomes(1));
    manager().setBluetoothComponents(false);
    manager().setBluetoothComponents(false);
    EXPECT_TRUE(becomes(0));
    g_object_unref(shared);
    bluez.setDevices({{"AA:BB:CC:DD:EE:FF", "Phone"}});
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_EQ(manager().getBluetoothDeviceListSize(ALL_DEVICES), 1U) << "the connection works";
}

TEST_F(BusReferences, OffAndOnFindsABusAtAnotherAddress) {
    manager().setBluetoothComponents(true);
    bus.stop();
    ASSERT_TRUE(eventually([&] { return !manager().adapterActivate(true); }));
    PrivateBus newBus;
    FakeBluez newBluez(newBus.address());
    manager().setBluetoothComponents(false);
    EXPECT_TRUE(manager().setBluetoothComponents(true));
    EXPECT_EQ(newBluez.countCalls("'Powered', <true>"), 1);
}
