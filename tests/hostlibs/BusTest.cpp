#include "Capabilities.h"
#include "Folder.h"
#include "Shortage.h"
#include "TestBus.h"
#include "hwcommon/DBusBluetoothHidProxy.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"
#include "hwcommon/Sdbus.h"
#include "hwcommon/fileUtil.h"
#include "hwtools/Condition.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

using corvane::test::Child;
using corvane::test::FakeBluez;
using corvane::test::FewDescriptors;
using corvane::test::Folder;
using corvane::test::NoThreads;
using corvane::test::PrivateBus;
using hwcommon::DBusBluetoothHidProxy;
using hwcommon::DBusHardwareProxy;
using hwcommon::DBusProxy;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr char hardware[] = "/org/corvane/Hardware";
constexpr char hid[] = "/org/corvane/BluetoothHid";
constexpr char address[] = "00:AA:01:00:00:42";
constexpr char lateName[] = "org.corvane.Late";

// The longest wait for something that must happen, on a busy machine.
constexpr std::chrono::duration<unsigned, std::milli> longTime = 5min;

/// A bus with the fake services, and the host's connection without an event loop.
class HostBus : public testing::Test {
protected:
    PrivateBus bus;
    FakeBluez services{bus.address()};
    std::unique_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    DBusProxy proxy{*connection};
};

class Observer : public hwcommon::DBusHardwareObserver {
public:
    void hardwareServiceAvailable(bool available) override { (available ? came : went).notify(); }
    hwtools::Condition came{false};
    hwtools::Condition went{false};
};

}  // namespace

TEST_F(HostBus, ReturnsTheHardwareServicesIdentity) {
    services.reply(hardware, "GetHardwareInfo",
                   "('<identity><model>6</model><family>1</family></identity>',)");
    EXPECT_THAT(DBusHardwareProxy(nullptr).getHardwareInfo(), HasSubstr("<model>6</model>"));
    services.release("org.corvane.Hardware");
    EXPECT_EQ(Capabilities::getInstance().getProductFamily(), 0);
    services.own("org.corvane.Hardware");
    EXPECT_EQ(Capabilities::getInstance().getProductFamily(), 1) << "asks again after a failure";
    services.release("org.corvane.Hardware");
    EXPECT_EQ(Capabilities::getInstance().getProductFamily(), 1) << "keeps an answer";
}

TEST_F(HostBus, ReturnsNoIdentityWithoutAValidAnswer) {
    DBusHardwareProxy proxyOfHardware(nullptr);
    services.fail(hardware, "GetHardwareInfo", "org.corvane.Error.Eeprom", "no eeprom");
    EXPECT_EQ(proxyOfHardware.getHardwareInfo(), "");
    services.reply(hardware, "GetHardwareInfo", "(uint32 6,)");
    EXPECT_EQ(proxyOfHardware.getHardwareInfo(), "");
    services.release("org.corvane.Hardware");
    EXPECT_EQ(proxyOfHardware.getHardwareInfo(), "");
    bus.stop();
    EXPECT_EQ(proxyOfHardware.getHardwareInfo(), "");
}

TEST_F(HostBus, TellsAnObserverOfTheHardwareService) {
    Observer observer;
    std::optional<DBusHardwareProxy> watched(std::in_place, &observer);
    EXPECT_EQ(observer.came.wait(longTime.count(), false), 0);
    observer.came.wait(0, true);
    services.release("org.corvane.Hardware");
    EXPECT_EQ(observer.went.wait(longTime.count(), false), 0);
    observer.went.wait(0, true);
    services.own("org.corvane.Hardware");
    EXPECT_EQ(observer.came.wait(longTime.count(), false), 0);
    bus.stop();
    EXPECT_EQ(observer.went.wait(longTime.count(), false), 0);
    watched.reset();
}

TEST_F(HostBus, PassesAddressAndStatusOfTheHidService) {
    DBusBluetoothHidProxy hidProxy(*connection);
    services.reply(hid, "Connect", "('Connect success',)");
    services.reply(hid, "Disconnect", "('gone',)");
    EXPECT_EQ(hidProxy.connectBtHidDevice(address), "Connect success");
    EXPECT_EQ(hidProxy.disconnectBtHidDevice(address), "gone");
    EXPECT_EQ(services.countCalls("org.corvane.BluetoothHid1.Connect ('00:AA:01:00:00:42',)"), 1);
    EXPECT_EQ(services.countCalls("org.corvane.BluetoothHid1.Disconnect ('00:AA:01:00:00:42',)"),
              1);
}

TEST_F(HostBus, ReportsAFailedHidCallAndUsesTheNextBus) {
    DBusBluetoothHidProxy hidProxy(*connection);
    services.fail(hid, "Connect", "org.corvane.Error.Busy", "Connect success");
    EXPECT_THAT(hidProxy.connectBtHidDevice(address),
                AllOf(HasSubstr("Connect failed"), Not("Connect success")));
    EXPECT_THAT(hidProxy.connectBtHidDevice("\xFF"), HasSubstr("Connect failed"));
    services.release("org.corvane.BluetoothHid");
    EXPECT_THAT(hidProxy.disconnectBtHidDevice(address), HasSubstr("Disconnect failed"));
    bus.stop();
    EXPECT_THAT(hidProxy.connectBtHidDevice(address), HasSubstr("Connect failed"));

    const PrivateBus successor;
    FakeBluez newServices(successor.address());
    newServices.reply(hid, "Connect", "('Connect success',)");
    EXPECT_EQ(hidProxy.connectBtHidDevice(address), "Connect success");
}

TEST_F(HostBus, FindsAnOwnedNameAtOnce) {
    const auto start = Clock::now();
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 0));
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 2 * longTime.count()));
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.freedesktop.DBus", 2 * longTime.count()));
    EXPECT_LT(Clock::now() - start, longTime);
}

namespace {

/// bluetoothd just after its start: it owns its name but has no adapter yet.
class LateAdapter : public HostBus {
protected:
    LateAdapter() { services.reply("/", "GetManagedObjects", "(@a{oa{sa{sv}}} {},)"); }

    std::future<bool> wait() {
        return std::async(std::launch::async, [this] {
            return proxy.waitUntilDBusNameExist("org.bluez", 2 * longTime.count());
        });
    }
    /// Waits until BlueZ has been asked for its objects once.
    void awaitQuestion() {
        const auto end = Clock::now() + longTime;
        while (services.countCalls("GetManagedObjects") == 0 && Clock::now() < end) {
            std::this_thread::sleep_for(5ms);
        }
        EXPECT_EQ(services.countCalls("GetManagedObjects"), 1);
    }
    void add(const std::string& path, const std::string& interface) {
        services.emit("/", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
                      "(objectpath '" + path + "', {'" + interface + "': @a{sv} {}})");
    }
    void addAdapter() { add("/org/bluez/hci0", "org.bluez.Adapter1"); }
    static void expectGoesOn(std::future<bool>& waiting) {
        EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
    }
    static void expectEnds(std::future<bool>& waiting) {
        ASSERT_EQ(waiting.wait_for(longTime), std::future_status::ready);
        EXPECT_TRUE(waiting.get());
    }
};

}  // namespace

TEST_F(LateAdapter, IsWaitedForBySignal) {
    auto waiting = wait();
    awaitQuestion();
    add("/org/bluez", "org.bluez.AgentManager1");
    expectGoesOn(waiting);
    addAdapter();
    expectEnds(waiting);
    EXPECT_EQ(services.countCalls("GetManagedObjects"), 1);
}

TEST_F(LateAdapter, IsNotMissedWhenItComesBeforeTheReply) {
    services.reply("/", "GetManagedObjects", "(@a{oa{sa{sv}}} {},)", 0, 1000ms);
    auto waiting = wait();
    awaitQuestion();
    addAdapter();
    expectEnds(waiting);
}

TEST_F(LateAdapter, ThatNeverComesDoesNotFailTheWait) {
    const auto start = Clock::now();
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 0)) << "no time to ask for objects";
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 300));
    EXPECT_EQ(services.countCalls("GetManagedObjects"), 1);
    services.ignore("/", "GetManagedObjects");
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 300));
    EXPECT_GE(Clock::now() - start, 600ms);
    services.fail("/", "GetManagedObjects", "org.freedesktop.DBus.Error.UnknownMethod", "no");
    auto refused = wait();
    expectEnds(refused);
}

TEST_F(LateAdapter, IsAwaitedFromTheNextOwnerToo) {
    auto waiting = wait();
    awaitQuestion();
    services.release("org.bluez");
    addAdapter();
    expectGoesOn(waiting);
    services.crash("/", "GetManagedObjects", false);  // in the middle of the question
    services.own("org.bluez");
    expectGoesOn(waiting);
    services.restart();  // with an adapter
    expectEnds(waiting);
}

TEST_F(HostBus, WaitsForANameUntilTheTimeout) {
    const auto start = Clock::now();
    EXPECT_FALSE(proxy.waitUntilDBusNameExist(lateName, 0));
    std::thread other([&] { services.own("org.corvane.Other"); });
    EXPECT_FALSE(proxy.waitUntilDBusNameExist(lateName, 300));
    EXPECT_GE(Clock::now() - start, 300ms);
    other.join();
    EXPECT_FALSE(proxy.waitUntilDBusNameExist("not a bus name", 0));
}

// Repeated with an event loop on the host's connection, which must not swallow the signal.
TEST_F(HostBus, EndsEveryWaitWhenTheNameComes) {
    connection->enterEventLoopAsync();
    bool found[2] = {false, false};
    std::thread first(
        [&] { found[0] = proxy.waitUntilDBusNameExist(lateName, 2 * longTime.count()); });
    std::thread second(
        [&] { found[1] = proxy.waitUntilDBusNameExist(lateName, 2 * longTime.count()); });
    const auto start = Clock::now();
    std::this_thread::sleep_for(200ms);  // for the waits to begin
    services.own(lateName);
    first.join();
    second.join();
    EXPECT_TRUE(found[0]);
    EXPECT_TRUE(found[1]);
    EXPECT_LT(Clock::now() - start, longTime);
    connection->leaveEventLoop();
}

TEST_F(HostBus, StopsWaitingWhenTheBusGoesAndUsesTheNextBus) {
    bool found = true;
    const auto start = Clock::now();
    std::thread waiter(
        [&] { found = proxy.waitUntilDBusNameExist(lateName, 2 * longTime.count()); });
    std::this_thread::sleep_for(200ms);  // for the wait to begin
    bus.stop();
    waiter.join();
    EXPECT_FALSE(found);
    EXPECT_LT(Clock::now() - start, longTime);

    const PrivateBus successor;
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.freedesktop.DBus", 0));
}

#ifndef __SANITIZE_ADDRESS__  // the sanitizers' own checks need descriptors
TEST_F(HostBus, FailsWithoutDescriptorsAndRecovers) {
    const Folder folder;
    const std::string file = folder / "shortage";
    std::string content;
    DBusHardwareProxy hardwareProxy(nullptr);
    Observer observer;
    const auto works = [&] {
        std::vector<bool> answers{
            proxy.waitUntilDBusNameExist("org.bluez", 0),
            !hardwareProxy.getHardwareInfo().empty(),
            hwcommon::fileUtil::saveContentToFile(file, "1"),
            hwcommon::fileUtil::getFileContent(file, content),
        };
        return answers;
    };
    services.reply(hardware, "GetHardwareInfo", "('<identity/>',)");
    for (unsigned left = 0; left < 3; ++left) {
        const FewDescriptors few(left);
        EXPECT_THAT(works(), testing::ElementsAre(false, false, left > 0, left > 0)) << left;
        const DBusHardwareProxy blind(&observer);
    }
    EXPECT_THAT(works(), testing::Each(true));
}
#endif

TEST_F(HostBus, CallsNoObserverWithoutThreads) {
    Observer observer;
    const NoThreads none;
    const DBusHardwareProxy watched(&observer);
    EXPECT_NE(observer.came.wait(0, false), 0);
}

TEST(BusPolicy, LetsOnlyRootServe) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const Folder folder;
    fs::permissions(folder.path(), fs::perms(0755));  // for somebody else to find the bus
    const std::string configuration = folder / "policy.conf";
    std::ofstream(configuration) << "<busconfig><type>system</type><listen>unix:path=" +
                                        folder / "bus" +
                                        "</listen>"
                                        "<policy context='default'><allow user='*'/><deny own='*'/>"
                                        "<allow send_destination='org.freedesktop.DBus'/>"
                                        "<allow receive_sender='*'/></policy>"
                                        "<include>" CORVANE_BUS_POLICY "</include></busconfig>";
    const Child daemon({"dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                        "--config-file=" + configuration});
    setenv("DBUS_SYSTEM_BUS_ADDRESS", daemon.firstLine().c_str(), 1);

    // The exit status counts which of the two names a user gets.
    const auto namesOf = [](uid_t user) {
        const pid_t child = fork();
        if (child == 0) {
            int names = 0;
            if (setuid(user) != 0) _exit(99);
            for (const char* name : {"org.corvane.Hardware", "org.corvane.BluetoothHid"}) {
                try {
                    sdbus::createSystemBusConnection()->requestName(hwcommon::ServiceName(name));
                    ++names;
                } catch (const sdbus::Error& error) {
                    if (error.getName() != "org.freedesktop.DBus.Error.AccessDenied") _exit(98);
                }
            }
            _exit(names);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(namesOf(0), 2);
    EXPECT_EQ(namesOf(65534), 0);
}
