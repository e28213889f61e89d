#include "Capabilities.h"
#include "TestBus.h"
#include "hwcommon/DBusBluetoothHidProxy.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"
#include "hwtools/Condition.h"

#include <gmock/gmock.h>
#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include <sys/time.h>

using corvane::test::FakeBluez;
using corvane::test::PrivateBus;
using hwcommon::DBusBluetoothHidProxy;
using hwcommon::DBusHardwareProxy;
using hwcommon::DBusProxy;
using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

constexpr char hardware[] = "/org/corvane/Hardware";
constexpr char hid[] = "/org/corvane/BluetoothHid";
constexpr char address[] = "00:AA:01:00:00:42";
constexpr char lateName[] = "org.corvane.Late";

// The longest wait for something that must happen, on a busy machine.
constexpr std::chrono::duration<unsigned, std::milli> longTime = 5min;

/// A bus with the fake services, and the host's proxies.
class HostBus : public testing::Test {
protected:
    /// Waits for a name on another thread, by default longer than expectEnds() waits.
    std::future<bool> wait(const char* name, unsigned milliseconds = 2 * longTime.count()) {
        auto waiting = std::async(std::launch::async,
                                  [=] { return proxy.waitUntilDBusNameExist(name, milliseconds); });
        std::this_thread::sleep_for(200ms);  // for the wait to begin
        return waiting;
    }
    static void expectEnds(std::future<bool>& waiting, bool found) {
        ASSERT_EQ(waiting.wait_for(longTime), std::future_status::ready);
        EXPECT_EQ(waiting.get(), found);
    }

    PrivateBus bus;
    FakeBluez services{bus.address()};
    std::unique_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    DBusProxy proxy{*connection};
    DBusHardwareProxy hardwareProxy{nullptr};
    DBusBluetoothHidProxy hidProxy{*connection};
};

class Observer : public hwcommon::DBusHardwareObserver {
public:
    void hardwareServiceAvailable(bool available) override { (available ? came : went).notify(); }
    hwtools::Condition came{false};
    hwtools::Condition went{false};
};

}  // namespace

TEST_F(HostBus, ReturnsTheIdentityOrNothing) {
    services.reply(hardware, "GetHardwareInfo",
                   "('<identity><model>6</model><family>1</family></identity>',)");
    EXPECT_THAT(hardwareProxy.getHardwareInfo(), HasSubstr("<model>6</model>"));
    services.release("org.corvane.Hardware");
    EXPECT_EQ(hardwareProxy.getHardwareInfo(), "");
    EXPECT_EQ(Capabilities::getInstance().getProductFamily(), 0);
    services.own("org.corvane.Hardware");
    EXPECT_EQ(Capabilities::getInstance().getProductFamily(), 1) << "asks again after a failure";
    services.fail(hardware, "GetHardwareInfo", "org.corvane.Error.Eeprom", "no eeprom");
    EXPECT_EQ(hardwareProxy.getHardwareInfo(), "");
    services.reply(hardware, "GetHardwareInfo", "(uint32 6,)");
    EXPECT_EQ(hardwareProxy.getHardwareInfo(), "");
    bus.stop();
    EXPECT_EQ(hardwareProxy.getHardwareInfo(), "");
    EXPECT_EQ(Capabilities::getInstance().getProductFamily(), 1) << "keeps an answer";
}

TEST_F(HostBus, TellsAnObserverOfTheHardwareService) {
    Observer first;
    {
        const DBusHardwareProxy watching(&first);
        EXPECT_EQ(first.came.wait(longTime.count(), false), 0);
        std::this_thread::sleep_for(100ms);  // its thread waits again by then
    }
    services.release("org.corvane.Hardware");
    Observer second;
    const DBusHardwareProxy watching(&second);
    services.own("org.corvane.Hardware");
    EXPECT_EQ(second.came.wait(longTime.count(), false), 0);
    bus.stop();
    EXPECT_EQ(second.went.wait(longTime.count(), false), 0);
}

TEST_F(HostBus, PassesAHidCallOrReportsItsFailureAndUsesTheNextBus) {
    services.reply(hid, "Connect", "('Connect success',)");
    services.reply(hid, "Disconnect", "('gone',)");
    EXPECT_EQ(hidProxy.connectBtHidDevice(address), "Connect success");
    EXPECT_EQ(hidProxy.disconnectBtHidDevice(address), "gone");
    EXPECT_EQ(services.countCalls("onnect ('00:AA:01:00:00:42',)"), 2);

    services.fail(hid, "Connect", "org.corvane.Error.Busy", "Connect success");
    EXPECT_THAT(hidProxy.connectBtHidDevice(address), HasSubstr("Connect failed"));
    EXPECT_THAT(hidProxy.connectBtHidDevice("\xFF"), HasSubstr("Connect failed"));
    services.release("org.corvane.BluetoothHid");
    EXPECT_THAT(hidProxy.disconnectBtHidDevice(address), HasSubstr("Disconnect failed"));
    bus.stop();
    EXPECT_THAT(hidProxy.connectBtHidDevice(address), HasSubstr("Connect failed"));
    bus.restart();
    services.restart();
    services.reply(hid, "Connect", "('Connect success',)");
    EXPECT_EQ(hidProxy.connectBtHidDevice(address), "Connect success");
}

TEST_F(HostBus, WaitsForANameUntilTheTimeoutAndNoLongerThanNeeded) {
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 0));
    EXPECT_FALSE(proxy.waitUntilDBusNameExist("not a bus name", 0));
    EXPECT_FALSE(proxy.waitUntilDBusNameExist(lateName, 0));
    const auto start = Clock::now();
    auto vain = wait(lateName, 500);
    services.own("org.corvane.Other");
    expectEnds(vain, false);
    EXPECT_GE(Clock::now() - start, 500ms);
    auto waiting = wait(lateName);
    services.own(lateName);
    expectEnds(waiting, true);
}

TEST_F(HostBus, StopsWaitingWhenTheBusGoesAndUsesTheNextBus) {
    auto waiting = wait(lateName);
    bus.stop();
    expectEnds(waiting, false);
    bus.restart();
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.freedesktop.DBus", 0));
}

namespace {

/// bluetoothd just after its start: it owns its name but has no adapter yet.
class LateAdapter : public HostBus {
protected:
    LateAdapter() { services.reply("/", "GetManagedObjects", "(@a{oa{sa{sv}}} {},)"); }

    void add(const std::string& path, const std::string& interface) {
        services.emit("/", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
                      "(objectpath '" + path + "', {'" + interface + "': @a{sv} {}})");
    }
};

}  // namespace

TEST_F(LateAdapter, IsWaitedForBySignal) {
    auto waiting = wait("org.bluez");
    const auto end = Clock::now() + longTime;
    while (services.countCalls("GetManagedObjects") == 0 && Clock::now() < end) {
        std::this_thread::sleep_for(5ms);
    }
    add("/org/bluez", "org.bluez.AgentManager1");
    EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
    add("/org/bluez/hci0", "org.bluez.Adapter1");
    expectEnds(waiting, true);
    EXPECT_EQ(services.countCalls("GetManagedObjects"), 1);
}

TEST_F(LateAdapter, ThatNeverComesDoesNotFailTheWait) {
    const auto start = Clock::now();
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 300));
    services.ignore("/", "GetManagedObjects");
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 300));
    EXPECT_GE(Clock::now() - start, 600ms);
}

namespace {
volatile std::sig_atomic_t interruptions = 0;
}

// A host with a timer whose handler does not restart interrupted calls.
TEST_F(HostBus, WaitsAndGetsRepliesDespiteSignals) {
    services.reply("*", "GetHardwareInfo", "('<identity/>',)", 0, 300ms);
    services.reply("*", "Connect", "('Connect success',)", 0, 300ms);
    struct sigaction action {};
    action.sa_handler = [](int) { interruptions = interruptions + 1; };
    sigaction(SIGALRM, &action, nullptr);
    itimerval every10ms{{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &every10ms, nullptr);
    EXPECT_EQ(hardwareProxy.getHardwareInfo(), "<identity/>");
    EXPECT_EQ(hidProxy.connectBtHidDevice(address), "Connect success");
    const auto start = Clock::now();
    EXPECT_FALSE(proxy.waitUntilDBusNameExist(lateName, 300));
    EXPECT_GE(Clock::now() - start, 300ms);
    every10ms = {};
    setitimer(ITIMER_REAL, &every10ms, nullptr);
    EXPECT_GT(interruptions, 5) << "nothing was interrupted";
}
