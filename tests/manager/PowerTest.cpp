#include "ManagerTest.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <system_error>

using namespace corvane::test;
using namespace testing;

namespace {

constexpr char fnLinkAttach[] =
    "start-stop-daemon -S -b -q -m -p /var/run/rtk_hciattach.pid --exec /bin/rtk_hciattach -- -n "
    "-s 115200 /dev/ttyS1 rtk_h5";
constexpr char fnLinkDetach[] = "hciconfig hci0 down; /sbin/kill_and_wait.sh rtk_hciattach";
constexpr char lairdAttach[] =
    "/bin/hciattach /dev/ttyS1 any -s 3000000 3000000 flow dtron;hciconfig hci0 up";
constexpr char lairdDetach[] = "hciconfig hci0 down; /sbin/kill_and_wait.sh hciattach";
constexpr char unload[] = "modprobe -r hci_uart_rtk hci_uart rfcomm bluetooth";

std::string loading(const std::string& driver) {
    const std::string insmod = "insmod /usr/lib/modules/`uname -r`/kernel/";
    return insmod + "net/bluetooth/bluetooth.ko;" + insmod + "drivers/bluetooth/" + driver + ";" +
           insmod + "net/bluetooth/rfcomm/rfcomm.ko;";
}

const std::string fnLinkModules = loading("bluetooth_uart_driver/hci_uart_rtk.ko");
const std::string lairdModules = loading("hci_uart.ko");

/// Counts the open descriptors that represent HCI sockets and devices here.
int openHci() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == "/dev/null") ++count;
    }
    return count;
}

}  // namespace

class EnableGpio : public OnWiring {
protected:
    using Events = std::vector<std::string>;

    Events enable(bool enable, bool forced) {
        forget();
        EXPECT_TRUE(manager().enableGpio(enable, forced));
        return happened({Kind::GPIO, Kind::LOG});
    }
    /// Of the events on each wiring, those on this one.
    static Events here(const std::vector<Events>& all) {
        return all[static_cast<std::size_t>(GetParam())];
    }
};

TEST_P(EnableGpio, RaisesEveryLineExceptNamedOnesAlreadyUp) {
    EXPECT_EQ(enable(true, false),
              here({{"DEBUG enableGpio : WIFIBT_EN = 1", "set 48 1", "set 153 1", "set 154 1"},
                    {},
                    {"DEBUG enableGpio : BT_EN = 1", "set 49 1"}}));
    EXPECT_EQ(enable(true, true), here({{"set 153 1", "set 154 1"}, {}, {}}));
}

TEST_P(EnableGpio, LeavesTheSharedLineUpUnlessForced) {
    manager().enableGpio(true, false);
    EXPECT_EQ(enable(false, false),
              here({{"set 153 0", "set 154 0"}, {}, {"DEBUG enableGpio : BT_EN = 0", "set 49 0"}}));
    EXPECT_EQ(
        enable(false, true),
        here({{"DEBUG enableGpio : WIFIBT_EN = 0", "set 48 0", "set 153 0", "set 154 0"}, {}, {}}));
}

INSTANTIATE_TEST_SUITE_P(Wiring, EnableGpio, Values(0, 1, 2));

class GpioFailures : public ManagerTest {};

TEST_F(GpioFailures, ShowInTheResultButStopNothing) {
    edges().failingGpio = {"set 48 1"};
    EXPECT_FALSE(manager().enableGpio(true, false));
    EXPECT_THAT(happened({Kind::GPIO}), ElementsAre("set 48 1", "set 153 1", "set 154 1"));
    edges().failingGpio = {"set 154 0"};
    EXPECT_FALSE(manager().enableGpio(false, false));
    for (const char* call : {"export 48", "direction 153 1", "export 154"}) {
        forget();
        edges().failingGpio = {call};
        EXPECT_FALSE(manager().initGPIOs()) << call;
        EXPECT_EQ(happened({Kind::GPIO}).size(), 6U);
    }
}

class Modules : public OnWiring {};

TEST_P(Modules, AreLoadedOnlyWithoutAnAdapterButAlwaysUnloaded) {
    const bool laird = GetParam() == 1;
    edges().paths = {"/sys/class/net/wlan0"};
    manager().loadModules(true);
    EXPECT_THAT(happened({Kind::SHELL, Kind::LOG, Kind::SLEEP}),
                ElementsAre(laird ? "DEBUG loadModules : loading Laird ST60-SIPT drivers..."
                                  : "DEBUG loadModules : loading FN-link drivers",
                            laird ? lairdModules : fnLinkModules));
    forget();
    edges().paths.insert("/sys/class/bluetooth/hci0");
    manager().loadModules(true);
    EXPECT_THAT(happened({Kind::SHELL, Kind::LOG, Kind::SLEEP}), IsEmpty());
    manager().loadModules(false);
    EXPECT_THAT(happened({Kind::SHELL, Kind::LOG, Kind::SLEEP}), ElementsAre(unload));
}

INSTANTIATE_TEST_SUITE_P(Wiring, Modules, Values(0, 1, 2));

class LairdModules : public ManagerTest {};

TEST_F(LairdModules, AreLoadedAfterFiveSecondsEvenWithoutWifiOrWhenTheWaitIsCutShort) {
    edges().paths = {"/sys/class/bluetooth/hci0"};
    useBoard(6, 3);
    manager();
    edges().paths.clear();
    for (const int waits : {21, 3}) {
        if (waits == 3) edges().notifiedAtWait = waits - 1;
        manager().loadModules(true);
        auto expected = std::vector<std::string>(static_cast<std::size_t>(waits), "wait 250");
        expected.push_back(lairdModules);
        EXPECT_EQ(happened({Kind::SLEEP, Kind::SHELL}), expected);
        forget();
    }
}

class HciAttach : public OnWiring {};

TEST_P(HciAttach, RunsTheAttachProgramOfTheWiring) {
    const bool laird = GetParam() == 1;
    const auto up = laird ? std::vector<std::string>{lairdAttach}  // raises the device itself
                          : std::vector<std::string>{fnLinkAttach, "socket 31 3 1 cloexec",
                                                     "HCIGETDEVINFO 0", "INFO hci0 is up."};
    EXPECT_TRUE(manager().hciattach(true));
    EXPECT_EQ(happened({Kind::SHELL, Kind::HCI, Kind::LOG, Kind::SLEEP}), up);
    forget();
    EXPECT_TRUE(manager().hciattach(false));
    EXPECT_THAT(happened({Kind::SHELL, Kind::HCI, Kind::LOG}),
                ElementsAre(laird ? lairdDetach : fnLinkDetach));
}

TEST_P(HciAttach, DoesNotWaitForTheSystemLog) {
    edges().hciPresent = false;
    EXPECT_TRUE(manager().hciattach(true)) << "even if the device never comes up";
    for (const std::string& event : happened({Kind::SHELL, Kind::SLEEP})) {
        EXPECT_EQ(event.find("messages"), std::string::npos) << event;
        EXPECT_EQ(event.find("wait"), std::string::npos) << event;
    }
}

INSTANTIATE_TEST_SUITE_P(Wiring, HciAttach, Values(0, 1, 2));

class HciUp : public ManagerTest {};

TEST_F(HciUp, TriesTenTimesToRaiseADeviceOrToFindAMissingOne) {
    manager();
    const auto before = openHci();
    edges().hciUp = false;
    for (const bool present : {true, false}) {
        SCOPED_TRACE(present ? "present" : "missing");
        forget();
        edges().hciPresent = present;
        edges().interruptedSleeps = 1;
        EXPECT_FALSE(manager().hciUp());
        std::vector<std::string> expected{"socket 31 3 1 cloexec"};
        for (int i = 0; i < 10; ++i) {
            expected.emplace_back("HCIGETDEVINFO 0");
            if (present) expected.emplace_back("HCIDEVUP 0");
            expected.emplace_back(present ? "INFO Waiting for hci0 to become up"
                                          : "INFO Scanning for hci0...");
            expected.emplace_back("nanosleep 500");
            if (i == 0) expected.emplace_back("nanosleep 250");  // the rest, after an interruption
        }
        expected.emplace_back("ERROR Timeout trying to bring up hci0");
        EXPECT_EQ(happened({Kind::HCI, Kind::SLEEP, Kind::LOG}), expected);
    }
    EXPECT_EQ(openHci(), before);
}

class RawHci : public ManagerTest {};

TEST_F(RawHci, WritesTheClassAndReturnsTheOneBeforeOrZeroAfterEachFailure) {
    edges().adapterClass = 0x5A020C;
    EXPECT_EQ(manager().adapterSetClass(0x002100), 0x5A020CU);
    const std::vector<std::pair<std::string, std::string>> rows{
        {"hci_open_dev", "ERROR Can not open the bluetooth device"},
        {"hci_read_class_of_dev", "ERROR Can not read HCI class"},
        {"hci_write_class_of_dev", "ERROR Can not set HCI class"}};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        forget();
        edges().failingHci = {rows[i].first};
        EXPECT_EQ(manager().adapterSetClass(0x002100), 0U);
        EXPECT_THAT(log(), ElementsAre(rows[i].second));
        EXPECT_EQ(happened({Kind::HCI}).size(), i + 1) << "nothing follows a failure";
    }
}

TEST_F(RawHci, ScanModeIsAlwaysOff) {
    for (const auto mode : {SCAN_MODE_DISABLED, SCAN_MODE_INQUIRY_AND_PAGE}) {
        EXPECT_TRUE(manager().adapterSetDiscoverableMode(mode));
        EXPECT_THAT(happened({Kind::HCI}),
                    ElementsAre("socket 31 3 1 cloexec", "ioctl 0x400448DD dev 0 opt 0x0"));
        forget();
    }
}

TEST_F(RawHci, LogsSocketFailures) {
    edges().failingHci = {"ioctl"};
    EXPECT_FALSE(manager().adapterSetDiscoverableMode(SCAN_MODE_INQUIRY_AND_PAGE));
    EXPECT_FALSE(manager().preventRoleSwitch());
    edges().failingHci = {"socket"};
    EXPECT_FALSE(manager().adapterSetDiscoverableMode(SCAN_MODE_INQUIRY_AND_PAGE));
    EXPECT_FALSE(manager().preventRoleSwitch());
    EXPECT_FALSE(manager().hciUp());
    EXPECT_THAT(errors(), ElementsAre("Can't set scan mode on hci", "Can't set MASTER mode on hci",
                                      "Can't open HCI socket.", "Can't open HCI socket.",
                                      "Timeout trying to bring up hci0"));
}

TEST_F(RawHci, LeavesOneDescriptorOpenPerCall) {
    manager();
    const auto before = openHci();
    manager().adapterSetClass(0);
    EXPECT_EQ(openHci(), before + 1);
    manager().adapterSetDiscoverableMode(SCAN_MODE_DISABLED);
    EXPECT_EQ(openHci(), before + 2);
    EXPECT_TRUE(manager().preventRoleSwitch());
    EXPECT_EQ(openHci(), before + 3);
}

TEST_F(RawHci, NoSignalInterruptsARequestToTheController) {
    edges().hciUp = false;
    manager().hciUp();
    manager().adapterSetClass(0);
    manager().adapterSetDiscoverableMode(SCAN_MODE_DISABLED);
    manager().preventRoleSwitch();
    EXPECT_THAT(edges().interruptible, IsEmpty());
    sigset_t blocked{};
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGALRM), 0) << "blocked only during the request";
}

// Since Linux 5.15 such a descriptor keeps a detached controller and its number.
TEST_F(RawHci, NextAttachReleasesDetachedControllers) {
    manager().adapterSetClass(0);
    manager().adapterSetClass(0);
    const auto before = openHci();
    const auto binds = [this](bool present) {
        edges().hciPresent = present;
        forget();
        manager().hciattach(true);
        const auto events = happened({Kind::HCI, Kind::SHELL});
        const auto attach = std::find(events.begin(), events.end(), fnLinkAttach);
        return std::count(events.begin(), attach, "bind 65535");
    };
    EXPECT_EQ(binds(true), 2) << "refused while the controller is there";
    EXPECT_EQ(binds(false), 2);
    EXPECT_EQ(binds(false), 0) << "each is released once";
    EXPECT_EQ(openHci(), before);
}

class GetEnabled : public ManagerTest {};

TEST_F(GetEnabled, IsTrueOnlyForOne) {
    EXPECT_FALSE(manager().getEnabled()) << "no file";
    const std::vector<std::pair<const char*, bool>> rows{
        {"1", true}, {"0", false}, {"-1", false}, {" 1\n", true}, {"1x", true}, {"10", false}};
    for (const auto& [text, expected] : rows) {
        edges().flagFile = text;
        EXPECT_EQ(manager().getEnabled(), expected) << text;
    }
    edges().flagFile = "1";
    edges().flagReadable = false;
    EXPECT_FALSE(manager().getEnabled());
}

TEST_F(GetEnabled, ThrowsForNonNumbersBeforeAnythingIsDone) {
    for (const char* text : {"on", "", "-"}) {
        edges().flagFile = text;
        EXPECT_THROW(manager().getEnabled(), std::invalid_argument) << text;
        forget();
        EXPECT_THROW(manager().setEnabled(true, false), std::invalid_argument) << text;
        EXPECT_THAT(happened({Kind::SHELL, Kind::GPIO, Kind::FILE, Kind::BUS}), IsEmpty());
    }
    edges().flagFile = "99999999999";
    EXPECT_THROW(manager().getEnabled(), std::out_of_range);
}

class SetEnabled : public ManagerTest {};

TEST_F(SetEnabled, DoesNothingWhenTheSettingIsUnchanged) {
    edges().flagFile = "1";
    manager().setEnabled(true, true);
    edges().flagFile = "0";
    manager().setEnabled(false, false);
    EXPECT_THAT(happened({Kind::SHELL, Kind::GPIO, Kind::FILE, Kind::BUS, Kind::LOG}),
                ElementsAre("DEBUG setEnabled : 1 (forced)", "DEBUG setEnabled : 0"));
}

TEST_F(SetEnabled, SwitchesOnInOrder) {
    manager().setEnabled(true, false);
    EXPECT_THAT(
        happened({Kind::SHELL, Kind::GPIO, Kind::HCI, Kind::SLEEP, Kind::BUS, Kind::FILE}),
        ElementsAre(
            "rfkill unblock bluetooth", "set 48 1", "set 153 1", "set 154 1", fnLinkAttach,
            "socket 31 3 1 cloexec", "HCIGETDEVINFO 0",
            "start-stop-daemon -S -b -q -m -p /var/run/bluetoothd.pid -x "
            "/usr/libexec/bluetooth/bluetoothd -- --compat --noplugin=input",
            "wait for org.bluez 5000",
            "start-stop-daemon -S -b -q -m -p /var/run/hw_bluez_hid.pid -x /bin/hw_bluez_hid 7 '" +
                GetModelNameStringExternal(MODEL_C100) +
                "' --no-close;"
                "start-stop-daemon -S -b -q -m -p /var/run/bluealsa.pid -x /bin/bluealsa;"
                "export "
                "DBUS_SESSION_BUS_ADDRESS=unix:path=/var/run/dbus/system_bus_socket;",
            "wait for org.freedesktop.DBus 5000", adapterSet("Powered", "true"),
            agentCall("RegisterAgent", "(objectpath '/org/corvane', 'NoInputNoOutput')"),
            agentCall("RequestDefaultAgent", "(objectpath '/org/corvane',)"),
            "socket 31 3 1 cloexec", "ioctl 0x400448DD dev 0 opt 0x0",
            adapterSet("Alias", "'" + GetModelNameStringExternal(MODEL_C100) + " SN12345678'"),
            adapterSet("Pairable", "true"), adapterSet("PairableTimeout", "uint32 0"),
            "hci_open_dev 0", "hci_read_class_of_dev 1000", "hci_write_class_of_dev 0x002100 1000",
            "socket 31 3 1 cloexec", "ioctl 0x400448E2 dev 0 opt 0x8001",
            "rewrite /tmp/bluetoothEnabled '1'"));
}

TEST_F(SetEnabled, SwitchesOffInOrderEvenIfNothingWasSetSinceBoot) {
    edges().levels = {{48, 1}, {153, 1}, {154, 1}};
    manager().setEnabled(false, true);
    EXPECT_THAT(
        happened({Kind::SHELL, Kind::GPIO, Kind::HCI, Kind::SLEEP, Kind::BUS, Kind::FILE}),
        ElementsAre("rfkill block bluetooth", "set 48 0", "set 153 0", "set 154 0",
                    adapterSet("Powered", "false"), fnLinkDetach,
                    "killall bluealsa;/sbin/kill_and_wait.sh hw_bluez_hid;",
                    "/sbin/kill_and_wait.sh bluetoothd", "rewrite /tmp/bluetoothEnabled '0'"));
}

TEST_F(SetEnabled, PersistsTheRequestEvenWhenBringUpFails) {
    bluez.fail("/org/bluez*", "*", "org.bluez.Error.Failed", "No");
    edges().hciPresent = false;
    manager().setEnabled(true, false);
    EXPECT_EQ(edges().flagFile, "1");
}

// Such a file reads as off: switching on works, switching off does nothing.
TEST_F(SetEnabled, FollowsAFlagFileThatCannotBeWrittenOrRead) {
    edges().flagFile = "0";
    edges().flagWritable = false;
    const auto acts = [this](bool enable) {
        forget();
        manager().setEnabled(enable, false);
        return !happened({Kind::SHELL}).empty();
    };
    for (const bool readable : {true, false}) {
        edges().flagReadable = readable;
        EXPECT_TRUE(acts(true));
        EXPECT_TRUE(acts(true)) << "again";
        EXPECT_FALSE(acts(false));
    }
    edges().flagFile.reset();
    EXPECT_TRUE(acts(false)) << "switching off works once the file is deleted";
}

class AirplaneMode : public ManagerTest {};

TEST_F(AirplaneMode, LowersLinesAndUnloadsModulesThenReverts) {
    edges().levels = {{48, 1}, {153, 1}, {154, 1}};
    manager().setAirplaneMode(true);
    EXPECT_THAT(happened({Kind::GPIO, Kind::SHELL}),
                ElementsAre("set 48 0", "set 153 0", "set 154 0", unload));
    forget();
    manager().setAirplaneMode(false);
    EXPECT_THAT(happened({Kind::GPIO, Kind::SHELL}),
                ElementsAre("set 48 1", "set 153 1", "set 154 1", fnLinkModules));
    EXPECT_THAT(happened({Kind::FILE, Kind::BUS}), IsEmpty());
}
