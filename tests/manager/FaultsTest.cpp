// Faults of the services under the library. docs/faults.md lists these tests and those of single
// operations.

#include "ManagerTest.h"

#include <filesystem>
#include <future>
#include <iterator>
#include <system_error>

using namespace corvane::test;
using namespace testing;

namespace {

const Device phone{"00:00:00:00:00:01", "Phone", 0x5A020C, true, true};
const Device speaker{"00:00:00:00:00:02", "Speaker", 0x240414, true, true};
const std::vector<Device> everyDevice{phone, speaker};

constexpr char noService[] = "GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: ";

}  // namespace

class Faults : public WithHidService {
protected:
    /// With everything repaired: off and on must leave no ERROR record.
    void expectRecovery() {
        bluez.setDevices(everyDevice);
        manager().setEnabled(false, false);
        forget();
        manager().setEnabled(true, false);
        EXPECT_THAT(errors(), IsEmpty());
        EXPECT_EQ(bluez.countCalls("'Powered', <true>"), 1);
        EXPECT_TRUE(manager().scanDevicesInfo());
        EXPECT_EQ(manager().getBluetoothDeviceListSize(ALL_DEVICES), everyDevice.size());
    }
};

class DaemonLoss : public Faults {
protected:
    DaemonLoss() { manager(); }

    void switchOn() {
        forget();
        manager().setEnabled(true, false);
        EXPECT_EQ(edges().flagFile, "1");
    }
};

TEST_F(DaemonLoss, InAnyStepOfSwitchingOnIsCuredByOffAndOn) {
    const std::vector<const char*> steps{"Set Powered", "RegisterAgent", "RequestDefaultAgent",
                                         "Set Alias",   "Set Pairable",  "Set PairableTimeout"};
    for (const char* step : steps) {
        for (const bool answered : {false, true}) {
            SCOPED_TRACE(std::string(step) + (answered ? ", answered" : ""));
            manager().setEnabled(false, false);
            bluez.crash("*", step, answered);
            switchOn();
            bluez.restart();
            EXPECT_EQ(happened({Kind::HCI}).back(), "ioctl 0x400448E2 dev 0 opt 0x8001");
            EXPECT_EQ(errors().empty(), answered && step == steps.back());
            expectRecovery();
        }
    }

    manager().setEnabled(false, false);
    edges().onShell = [this](const std::string& command) {
        if (command.find("-x /usr/libexec/bluetooth/bluetoothd") != std::string::npos) bluez.stop();
    };
    switchOn();
    edges().onShell = nullptr;
    EXPECT_THAT(errors(), Contains(HasSubstr(noService)).Times(2)) << "dead from its start";
    bluez.restart();
    expectRecovery();
}

TEST_F(DaemonLoss, DuringSwitchingOffSkipsNoStep) {
    switchOn();
    bluez.crash("*", "Set Powered", false);
    forget();
    manager().setEnabled(false, false);
    bluez.restart();
    EXPECT_THAT(errors(), Contains("Not able to set Powered property to 0"));
    EXPECT_EQ(happened({Kind::SHELL}).back(), "/sbin/kill_and_wait.sh bluetoothd");
    switchOn();
    expectRecovery();
}

class DaemonDeath : public Faults {};

TEST_F(DaemonDeath, DuringARequestGivesOneAnswerAndTheNextSwitchOnWorks) {
    using Scan = ScanBluetoothRequest;
    using Connect = ConnectBluetoothRequest;
    using Disconnect = DisconnectBluetoothRequest;
    using Wait = WaitBluetoothPairingRequest;
    const auto callback = answers.callback();
    const struct {
        const char* member;  // bluetoothd dies when this call comes
        std::shared_ptr<BluetoothRequest> request;
        int answer;
        bool goesOn = false;  // the request continues until BlueZ is back
    } rows[]{
        {"StartDiscovery", std::make_shared<Scan>(callback), REQUEST_SUCCESS},
        {"StopDiscovery", std::make_shared<Scan>(callback), REQUEST_SUCCESS},
        {"Connect", std::make_shared<Connect>(callback, &hid, "Speaker"), REQUEST_FAILED},
        {"Connect", std::make_shared<Connect>(callback, &hid, "Phone"), REQUEST_FAILED},
        {"Disconnect", std::make_shared<Disconnect>(callback, &hid, "Speaker"), REQUEST_SUCCESS,
         true},
        {"Set Trusted", std::make_shared<Wait>(callback, "Phone"), REQUEST_FAILED},
        {"GetManagedObjects", std::make_shared<Wait>(callback, "Phone"), REQUEST_SUCCESS, true},
        {"Pair", std::make_shared<Wait>(callback, "Speaker"), REQUEST_DEVICE_NOT_FOUND}};
    const std::chrono::milliseconds scanTime(10001);
    manager().setEnabled(true, false);
    std::size_t answered = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.member + std::to_string(answered));
        listDevices(everyDevice);
        Clock::stop();
        bluez.crash("*", row.member, false);
        if (row.goesOn) bluez.setDevices({{phone.address, phone.name, phone.deviceClass}}, 2);
        start(row.request);
        ASSERT_TRUE(eventually([&] {
            if (!row.goesOn) Clock::advance(scanTime);
            return !errors().empty();
        }));
        if (row.goesOn) {
            EXPECT_EQ(answers.count(), answered);
            bluez.restart();
            bluez.setDevices(everyDevice);
        }
        Clock::advance(scanTime);
        EXPECT_EQ(answers.next(), row.answer);
        if (!row.goesOn) bluez.restart();
        expectRecovery();
        EXPECT_EQ(answers.count(), ++answered);
    }
}

class BusLoss : public Faults {
protected:
    static int sockets() {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (read_symlink(entry, gone).string().rfind("socket:", 0) == 0) ++count;
        }
        return count;
    }

    void replaceBus() {
        bus.restart();
        bluez.restart();
    }
};

TEST_F(BusLoss, EndsEveryCallAndIsCuredByOffAndOn) {
    manager().setEnabled(true, false);
    listDevices(everyDevice);
    bluez.ignore(phone.path(), "Connect");
    bluez.ignore("/", "GetManagedObjects");
    auto call = std::async(std::launch::async,
                           [this] { return manager().connectDevice(phone.address.c_str()); });
    auto end = std::async(std::launch::async, [this] {
        EXPECT_TRUE(eventually([this] {
            return bluez.countCalls(".Connect ") == 1 && bluez.countCalls("GetManagedObjects") == 1;
        }));
        bus.stop();
    });
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_FALSE(call.get());
    end.get();
    EXPECT_EQ(manager().getBluetoothDeviceListSize(ALL_DEVICES), 0U);
    EXPECT_THAT(errors(), Contains("Not able to connect device"));
    EXPECT_THAT(errors(), Contains("Unable to get result for GetManagedObjects"));
    edges().forget();
    start(std::make_shared<ConnectBluetoothRequest>(answers.callback(), nullptr, "Phone"));
    EXPECT_EQ(answers.next(), REQUEST_FAILED);
    EXPECT_FALSE(manager().adapterActivate(true));
    EXPECT_THAT(errors(), ElementsAre("bluezAdapterSetProperty Powered failed : The connection is "
                                      "closed",
                                      "Not able to set Powered property to 1"));

    manager().setEnabled(false, false);
    manager().setEnabled(true, false);
    EXPECT_EQ(errors().back(), "setBluetoothComponents : Not able to get connection to system bus");
    replaceBus();
    expectRecovery();
}

TEST_F(BusLoss, InAnyStepOfSwitchingOnIsCuredByOffAndOn) {
    manager();
    for (const char* command : {"rfkill", "rtk_hciattach", "bluetoothd.pid", "hw_bluez_hid"}) {
        SCOPED_TRACE(command);
        edges().onShell = [&](const std::string& line) {
            if (line.find(command) != std::string::npos) bus.stop();
        };
        forget();
        manager().setEnabled(true, false);
        edges().onShell = nullptr;
        EXPECT_THAT(errors(), Not(IsEmpty()));
        replaceBus();
        expectRecovery();
        manager().setEnabled(false, false);
    }
}

TEST_F(BusLoss, IsCuredWhileTheHostHoldsTheClosedConnection) {
    GDBusConnection* const hosts = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    manager().setEnabled(true, false);
    const int before = sockets();
    for (int restart = 0; restart < 2; ++restart) {
        replaceBus();
        ASSERT_TRUE(eventually([&] { return !manager().adapterScan(true); }));
        const int& runs = addHostsSource();
        manager().setEnabled(false, false);
        forget();
        manager().setEnabled(true, false);
        EXPECT_EQ(runs, 0) << "only a scan runs the host's sources";
        EXPECT_THAT(errors(), IsEmpty());
        expectRecovery();
        EXPECT_TRUE(eventually([&] { return sockets() == before; }))
            << "a closed connection holds no socket";
    }
    EXPECT_TRUE(g_dbus_connection_is_closed(hosts));
    g_object_unref(hosts);
}

TEST_F(BusLoss, IsCuredAfterABringUpWithoutAConnection) {
    const auto withoutConnection = [this] {
        manager().setEnabled(false, false);
        edges().busMissing = true;
        manager().setEnabled(true, false);
        edges().busMissing = false;
        EXPECT_EQ(errors().back(),
                  "setBluetoothComponents : Not able to get connection to system bus");
    };
    manager().setEnabled(true, false);
    const int before = sockets();
    withoutConnection();
    replaceBus();
    expectRecovery();
    for (int i = 0; i < 3; ++i) {
        withoutConnection();
        expectRecovery();
    }
    EXPECT_TRUE(eventually([&] { return sockets() == before; })) << "our own connection is reused";
}

TEST_F(BusLoss, DoesNotFreeTheConnectionOfACallInFlight) {
    manager().setEnabled(true, false);
    listDevices(everyDevice);
    std::promise<void> begun;
    std::promise<void> released;
    edges().onCall = [&](const std::string& method) {
        if (method != "Disconnect") return;
        begun.set_value();
        released.get_future().wait();
    };
    auto call = std::async(std::launch::async,
                           [this] { return manager().disconnectDevice(phone.address.c_str()); });
    begun.get_future().wait();
    replaceBus();
    manager().setEnabled(false, false);
    manager().setEnabled(true, false);
    forget();
    released.set_value();
    EXPECT_FALSE(call.get());
    EXPECT_THAT(errors(), ElementsAre("bluezDeviceCallMethod : The connection is closed",
                                      "Not able to disconnect device"));
    edges().onCall = nullptr;
    expectRecovery();
}

#ifndef __SANITIZE_ADDRESS__  // the sanitizers' own checks need descriptors

class DescriptorShortage : public Faults {};

TEST_F(DescriptorShortage, FailsCallsAndSwitchingOnUntilItIsOver) {
    manager();
    {
        const FewDescriptors none;
        EXPECT_FALSE(manager().connectDevice(phone.address.c_str()));
        manager().setEnabled(true, false);
    }
    EXPECT_THAT(errors(),
                ElementsAre("bluezDeviceCallMethod : Too many open files",
                            "Not able to connect device", "Timeout trying to bring up hci0",
                            "setBluetoothComponents : Not able to get connection to system bus"));
    expectRecovery();
    const FewDescriptors none;
    EXPECT_TRUE(manager().scanDevicesInfo()) << "a scan needs no descriptor";
    manager().setEnabled(false, false);
}

TEST_F(BusLoss, DuringADescriptorShortageIsCuredAfterIt) {
    manager().setEnabled(true, false);
    replaceBus();
    for (unsigned left = 0; left < 10; ++left) {
        manager().setEnabled(false, false);
        const FewDescriptors few(left);
        manager().setEnabled(true, false);
    }
    expectRecovery();
}

#endif

/// Without the services: their tests' connection would already have started GDBus's thread.
class FirstUse : public Test {
protected:
    FirstUse() { captureLog(); }

    static void expectTheBusIsReached() {
        BluetoothManager::getInstance().setBluetoothComponents(true);
        EXPECT_FALSE(BluetoothManager::getInstance().adapterScan(true));
        EXPECT_THAT(edges().log().end()[-2].message, HasSubstr(noService));
    }

    const PrivateBus bus;
};

#ifndef __SANITIZE_ADDRESS__

TEST_F(FirstUse, ThrowsWithoutDescriptorsAndSucceedsLater) {
    const auto open = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open();
    unsigned left = 0;
    for (bool made = false; !made; ++left) {
        ASSERT_LT(left, 20U);
        try {
            const FewDescriptors few(left);
            BluetoothManager::getInstance();
            made = true;
        } catch (const std::exception&) {
        }
        EXPECT_TRUE(made || open() == before) << left;
    }
    EXPECT_GT(left, 3U);
    expectTheBusIsReached();
}

#endif

TEST_F(FirstUse, WithoutThreadsGetsTheBusAtTheNextSwitchOn) {
    {
        const NoThreads none;
        EXPECT_FALSE(BluetoothManager::getInstance().setBluetoothComponents(true));
    }
    EXPECT_EQ(edges().log().back().message,
              "setBluetoothComponents : Not able to get connection to system bus");
    expectTheBusIsReached();
}
