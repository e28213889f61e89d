// Faults of the services under the library. docs/faults.md lists these tests and those of single
// operations.

#include "Edges.h"
#include "ManagerTest.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <gio/gio.h>
#include <sdbus-c++/sdbus-c++.h>

#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <system_error>

using namespace corvane::test;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

const Device phone{"00:00:00:00:00:01", "Phone", 0x5A020C, true, true};
const Device speaker{"00:00:00:00:00:02", "Speaker", 0x240414, true, true};
const std::vector<Device> everyDevice{phone, speaker};

constexpr char noService[] = "GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: ";

}  // namespace

class Faults : public ManagerTest {
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

class SwitchingOn : public Faults {};

TEST_F(SwitchingOn, RecoversAfterTheDaemonDiesInAnyStep) {
    const std::vector<const char*> steps{"Set Powered", "RegisterAgent", "RequestDefaultAgent",
                                         "Set Alias",   "Set Pairable",  "Set PairableTimeout"};
    for (const char* step : steps) {
        for (const bool answered : {false, true}) {
            SCOPED_TRACE(std::string(step) + (answered ? ", answered" : ""));
            manager().setEnabled(false, false);
            forget();
            bluez.crash("*", step, answered);
            manager().setEnabled(true, false);
            bluez.restart();
            EXPECT_EQ(happened({Kind::HCI}).back(), "ioctl 0x400448E2 dev 0 opt 0x8001");
            const bool noticed = !answered || step != steps.back();
            EXPECT_EQ(errors().empty(), !noticed);
            EXPECT_EQ(edges().flagFile, "1");
            expectRecovery();
        }
    }
    manager().setEnabled(false, false);
    forget();
    edges().onShell = [this](const std::string& command) {
        if (command.find("-x /usr/libexec/bluetooth/bluetoothd") != std::string::npos) bluez.stop();
    };
    manager().setEnabled(true, false);
    EXPECT_THAT(errors(), Contains(HasSubstr(noService)).Times(2)) << "dies as it starts";
    edges().onShell = nullptr;
    bluez.restart();
    expectRecovery();

    bluez.crash("*", "Set Powered", false);
    forget();
    manager().setEnabled(false, false);
    bluez.restart();
    EXPECT_THAT(errors(), Contains("Not able to set Powered property to 0"));
    EXPECT_EQ(happened({Kind::SHELL}).back(), "/sbin/kill_and_wait.sh bluetoothd")
        << "every step runs";
    manager().setEnabled(true, false);
    expectRecovery();
}

struct DyingCase {
    const char* name;
    std::function<std::shared_ptr<BluetoothRequest>(std::function<void(BluetoothRequestAnswers)>,
                                                    hwcommon::DBusBluetoothHidProxy*)>
        make;
    const char* member;
    int answer;
    bool goesOn = false;  // until BlueZ is back
};

class DaemonDeath : public Faults, public testing::WithParamInterface<DyingCase> {
protected:
    std::unique_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    hwcommon::DBusBluetoothHidProxy hid{*connection};
};

template <class Request>
auto named(const std::string& name) {
    return [name](auto callback, auto* hid) {
        if constexpr (std::is_same_v<Request, WaitBluetoothPairingRequest>) {
            return std::make_shared<Request>(callback, name);
        } else {
            return std::make_shared<Request>(callback, hid, name);
        }
    };
}

std::shared_ptr<BluetoothRequest> scan(std::function<void(BluetoothRequestAnswers)> callback,
                                       hwcommon::DBusBluetoothHidProxy* /*hid*/) {
    return std::make_shared<ScanBluetoothRequest>(std::move(callback));
}

TEST_P(DaemonDeath, DuringARequestGivesOneAnswerAndTheNextSwitchOnWorks) {
    const DyingCase& row = GetParam();
    manager().setEnabled(true, false);
    listDevices(everyDevice);
    Clock::stop();
    bluez.crash("*", row.member, false);
    if (row.goesOn) bluez.setDevices({{phone.address, phone.name, phone.deviceClass}}, 2);
    start(row.make(answers.callback(), &hid));
    const std::chrono::milliseconds scanTime(10001);
    ASSERT_TRUE(eventually([&] {
        if (!row.goesOn) Clock::advance(scanTime);
        return !errors().empty();
    }));
    if (row.goesOn) {
        EXPECT_EQ(answers.count(), 0U);
        bluez.restart();
        bluez.setDevices(everyDevice);
    }
    Clock::advance(scanTime);
    EXPECT_EQ(answers.next(), row.answer);
    manager().cancelRequest();
    if (!row.goesOn) bluez.restart();
    expectRecovery();
    start(scan(answers.callback(), nullptr));
    manager().cancelRequest();
    EXPECT_NE(answers.next(), -1);
    EXPECT_EQ(answers.count(), 2U) << "one for each request";
}

INSTANTIATE_TEST_SUITE_P(
    Request, DaemonDeath,
    testing::Values(DyingCase{"ScanAsItStarts", scan, "StartDiscovery", REQUEST_SUCCESS},
                    DyingCase{"ScanAsItStops", scan, "StopDiscovery", REQUEST_SUCCESS},
                    DyingCase{"ConnectSpeaker", named<ConnectBluetoothRequest>("Speaker"),
                              "Connect", REQUEST_FAILED},
                    DyingCase{"ConnectPhone", named<ConnectBluetoothRequest>("Phone"), "Connect",
                              REQUEST_FAILED},
                    DyingCase{"Disconnect", named<DisconnectBluetoothRequest>("Speaker"),
                              "Disconnect", REQUEST_SUCCESS, true},
                    DyingCase{"WaitAsItTrusts", named<WaitBluetoothPairingRequest>("Phone"),
                              "Set Trusted", REQUEST_FAILED},
                    DyingCase{"WaitForPhone", named<WaitBluetoothPairingRequest>("Phone"),
                              "GetManagedObjects", REQUEST_SUCCESS, true},
                    DyingCase{"WaitAsItPairs", named<WaitBluetoothPairingRequest>("Speaker"),
                              "Pair", REQUEST_DEVICE_NOT_FOUND}),
    [](const auto& row) { return std::string(row.param.name); });

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

TEST_F(BusLoss, IsLoggedAndCuredByOffAndOn) {
    manager().setEnabled(true, false);
    listDevices(everyDevice);
    bluez.ignore(phone.path(), "Connect");
    auto call = std::async(std::launch::async,
                           [this] { return manager().connectDevice(phone.address.c_str()); });
    ASSERT_TRUE(eventually([this] { return bluez.countCalls(".Connect ") == 1; }));
    bluez.ignore("/", "GetManagedObjects");
    auto end = std::async(std::launch::async, [this] {
        EXPECT_TRUE(eventually([this] { return bluez.countCalls("GetManagedObjects") == 1; }));
        bus.stop();
    });
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_FALSE(call.get());
    end.get();
    EXPECT_EQ(manager().getBluetoothDeviceListSize(ALL_DEVICES), 0U);
    EXPECT_THAT(errors(), Contains("Not able to connect device"));
    EXPECT_THAT(errors(), Contains("Unable to get result for GetManagedObjects"));
    edges().forget();
    EXPECT_FALSE(manager().adapterActivate(true));
    EXPECT_THAT(errors(), ElementsAre("bluezAdapterSetProperty Powered failed : The connection is "
                                      "closed",
                                      "Not able to set Powered property to 1"));
    start(std::make_shared<ConnectBluetoothRequest>(answers.callback(), nullptr, "Phone"));
    EXPECT_EQ(answers.next(), REQUEST_FAILED);

    edges().forget();
    manager().setEnabled(false, false);
    manager().setEnabled(true, false);
    EXPECT_EQ(errors().back(), "setBluetoothComponents : Not able to get connection to system bus");
    replaceBus();
    expectRecovery();
}

TEST_F(BusLoss, WhileOffIsCuredByTheNextSwitchOn) {
    manager().setEnabled(true, false);
    manager().setEnabled(false, false);
    replaceBus();
    forget();
    manager().setEnabled(true, false);
    EXPECT_THAT(errors(), IsEmpty());
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
        const HostsSource source;
        manager().setEnabled(false, false);
        forget();
        manager().setEnabled(true, false);
        EXPECT_EQ(source.runs, 0) << "only a scan runs the host's sources";
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
    withoutConnection();
    replaceBus();
    expectRecovery();
    const auto before = sockets();
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
    edges().onCall = [&](const std::string& method, GVariant* /*arguments*/) {
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

class DescriptorShortage : public Faults {};

#ifndef __SANITIZE_ADDRESS__  // the sanitizers' own checks need descriptors

TEST_F(DescriptorShortage, FailsSwitchingOnUntilItIsOver) {
    manager();
    {
        const FewDescriptors none;
        manager().setEnabled(true, false);
    }
    EXPECT_THAT(errors(), ElementsAre("Timeout trying to bring up hci0",
                                      "setBluetoothComponents : Not able to get connection to "
                                      "system bus"));
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

// Without the services: their tests' connection would already have started GDBus's thread.
TEST(FirstUse, ThrowsWithoutDescriptorsAndSucceedsLater) {
    const PrivateBus bus;
    captureLog();
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
    EXPECT_TRUE(BluetoothManager::getInstance().setBluetoothDaemon(true));
    BluetoothManager::getInstance().setBluetoothComponents(true);
    EXPECT_FALSE(BluetoothManager::getInstance().adapterScan(true));
    EXPECT_THAT(edges().log().end()[-2].message, HasSubstr(noService)) << "the bus is reached";
}

#endif

TEST(FirstUse, WithoutThreadsGetsTheBusAtTheNextSwitchOn) {
    const PrivateBus bus;
    captureLog();
    {
        const NoThreads none;
        BluetoothManager::getInstance();
        EXPECT_FALSE(BluetoothManager::getInstance().setBluetoothComponents(true));
    }
    EXPECT_EQ(edges().log().back().message,
              "setBluetoothComponents : Not able to get connection to system bus");
    BluetoothManager::getInstance().setBluetoothComponents(true);
    EXPECT_FALSE(BluetoothManager::getInstance().adapterScan(true));
    EXPECT_THAT(edges().log().end()[-2].message, HasSubstr(noService)) << "the bus is reached";
}

class HostileDevices : public Faults {};

TEST_F(HostileDevices, NamesReachNoShellAndMatchNoOther) {
    const std::vector<std::string> names{"$(reboot)",
                                         "`reboot`",
                                         "'; reboot; '",
                                         "\"; reboot #",
                                         "a\nb",
                                         "\x1B]0;title\x07\x1B[2J",
                                         "%s%n%999999d",
                                         "\u202Ekcolc\u2066",
                                         "../../etc/passwd",
                                         "Phone ",
                                         std::string(248, 'x'),
                                         std::string(100000, 'x')};
    std::vector<Device> devices{phone};
    for (const auto& name : names) {
        const std::string number = std::to_string(10 + devices.size());
        devices.push_back({"00:00:00:00:01:" + number, name, 0x240414, true, true,
                           "bluetooth:" + name + "v004Cp0269d0001"});
    }
    listDevices(devices);
    ASSERT_EQ(manager().getBluetoothDeviceListSize(CONNECTED_DEVICES), devices.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        start(std::make_shared<DisconnectBluetoothRequest>(answers.callback(), nullptr, names[i]));
        EXPECT_EQ(answers.next(), REQUEST_SUCCESS);
        EXPECT_EQ(bluez.countCalls(deviceCall(devices[i + 1].address, "Disconnect")), 1);
        EXPECT_EQ(manager().getVendorId(ALL_DEVICES, names[i]), 0);
    }
    EXPECT_THAT(happened({Kind::SHELL}), IsEmpty());
}

TEST_F(HostileDevices, ComeAndGoButEachScanShowsOneReply) {
    std::vector<Device> thousand;
    for (int i = 0; i < 1000; ++i) {
        char address[18];
        std::snprintf(address, sizeof address, "00:00:00:00:%02X:%02X", i / 256, i % 256);
        thousand.push_back({address, "Device", 0x240414, i % 2 == 0, i % 3 == 0});
    }
    const std::vector<Device> few(thousand.begin(), thousand.begin() + 3);
    std::string all = "({" + thousand[0].object();
    for (int i = 1; i < 1000; ++i) all += ", " + thousand[static_cast<std::size_t>(i)].object();
    all += "},)";
    manager();
    // Each change comes at any moment of a scan, and is seen by at least one.
    std::atomic<int> scans{0};
    auto changes = std::async(std::launch::async, [&] {
        for (int i = 0; i < 10; ++i) {
            if (i % 2 == 0) {
                bluez.setDevices(few);
            } else {
                bluez.reply("/", "GetManagedObjects", all);
            }
            EXPECT_TRUE(eventually([&scans, before = scans.load()] { return scans > before + 1; }));
        }
    });
    std::set<unsigned> seen;
    while (changes.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        manager().scanDevicesInfo();
        const unsigned count = manager().getBluetoothDeviceListSize(ALL_DEVICES);
        EXPECT_EQ(manager().getBluetoothDeviceListSize(PAIRED_DEVICES), (count + 1) / 2);
        EXPECT_EQ(manager().getBluetoothDeviceListSize(CONNECTED_DEVICES), (count + 2) / 3);
        seen.insert(count);
        ++scans;
    }
    seen.erase(0);  // before the first change
    EXPECT_THAT(seen, ElementsAre(3U, 1000U));
}
