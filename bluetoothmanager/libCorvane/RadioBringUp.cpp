#include "BluetoothManager.h"

#include "Logging.h"
#include "Shell.h"
#include "SystemCalls.h"
#include "hwcommon/fileUtil.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <string_view>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using corvane::runShell;

namespace {

#define CORVANE_MODULES "insmod /usr/lib/modules/`uname -r`/kernel/"
constexpr char fnLinkModules[] =
    CORVANE_MODULES "net/bluetooth/bluetooth.ko;" CORVANE_MODULES
                    "drivers/bluetooth/bluetooth_uart_driver/hci_uart_rtk.ko;" CORVANE_MODULES
                    "net/bluetooth/rfcomm/rfcomm.ko;";
constexpr char lairdModules[] = CORVANE_MODULES "net/bluetooth/bluetooth.ko;" CORVANE_MODULES
                                                "drivers/bluetooth/hci_uart.ko;" CORVANE_MODULES
                                                "net/bluetooth/rfcomm/rfcomm.ko;";
#undef CORVANE_MODULES

// Three-wire (H5) mode at 115200 baud; start-stop-daemon puts it into the background.
constexpr char fnLinkAttach[] =
    "start-stop-daemon -S -b -q -m -p /var/run/rtk_hciattach.pid --exec /bin/rtk_hciattach -- "
    "-n -s 115200 /dev/ttyS1 rtk_h5";
constexpr char fnLinkDetach[] = "hciconfig hci0 down; /sbin/kill_and_wait.sh rtk_hciattach";

constexpr unsigned maxLines = 3;

/// One enable line of a wiring.
struct EnableLine {
    unsigned pin;      // GPIO number
    const char* name;  // as logged; null: not named, driven without a look at its level or a record
    bool shared;       // also powers the Wi-Fi: an ordinary switch-off leaves it up
};

/// A radio module and how it is wired. The row's index is BluetoothManager's hardwareVariant.
struct RadioWiring {
    std::array<EnableLine, maxLines> lines;
    unsigned lineCount;
    const char* loadingMessage;
    bool waitsForWifi;  // its modules are loaded after the Wi-Fi's interface has come
    const char* modules;
    const char* attach;
    const char* detach;
    bool attachRaisesDevice;   // otherwise hciUp() does
    const char* attachMarker;  // line of the kernel log that marks a finished attach
};

constexpr char h4Marker[] = "HCI UART protocol H4 registered";

constexpr std::array<RadioWiring, 3> wirings{{
    // FN-link module (Realtek controller)
    {{{{48, "WIFIBT_EN", true}, {153, nullptr, false}, {154, nullptr, false}}},
     3,
     " : loading FN-link drivers",
     false,
     fnLinkModules,
     fnLinkAttach,
     fnLinkDetach,
     false,
     "rtk_btcoex: -x"},
    // Laird ST60-SIPT module
    {{},
     0,
     " : loading Laird ST60-SIPT drivers...",
     true,
     lairdModules,
     "/bin/hciattach /dev/ttyS1 any -s 3000000 3000000 flow dtron;hciconfig hci0 up",
     "hciconfig hci0 down; /sbin/kill_and_wait.sh hciattach",
     true,
     h4Marker},
    // FN-link module, board with a single Bluetooth enable line
    {{{{49, "BT_EN", false}}},
     1,
     " : loading FN-link drivers",
     false,
     fnLinkModules,
     fnLinkAttach,
     fnLinkDetach,
     false,
     h4Marker},
}};

const RadioWiring& wiringOf(int hardwareVariant) {
    return wirings.at(static_cast<std::size_t>(hardwareVariant));
}

// The number is fixed; its name is up to the host's GPIO library.
constexpr auto output = static_cast<GPIO::Direction>(1);

constexpr char wifiInterface[] = "/sys/class/net/wlan0";
constexpr unsigned wifiPolls = 21;
constexpr unsigned wifiPoll = 250;  // milliseconds

constexpr std::string_view hciName = "hci0";
constexpr char hciDevice[] = "/sys/class/bluetooth/hci0";
constexpr unsigned upAttempts = 10;
constexpr timespec upPause{0, 500'000'000};

/// The number behind "hci".
std::uint16_t hciNumber() {
    constexpr std::string_view digits = hciName.substr(std::string_view("hci").size());
    std::uint16_t number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

void sleepUninterrupted(timespec remaining) {
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

bool BluetoothManager::initGPIOs() {
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    bool success = true;
    for (unsigned i = 0; i < wiring.lineCount; ++i) {
        const unsigned pin = wiring.lines.at(i).pin;
        if (gpioManager.exportPin(pin) != 1) success = false;
        if (gpioManager.setDirection(pin, output) != 1) success = false;
    }
    return success;
}

bool BluetoothManager::enableGpio(bool enable, bool forced) {
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    const int level = enable ? 1 : 0;
    bool success = true;
    for (unsigned i = 0; i < wiring.lineCount; ++i) {
        const EnableLine& line = wiring.lines.at(i);
        // Deliberate: an ordinary switch-off leaves the shared line up, the Wi-Fi lives on it. Held
        // by EnableGpio.LeavesTheSharedLineUpUnlessForced.
        if (line.shared && !enable && !forced) continue;
        if (line.name != nullptr) {
            if (static_cast<int>(gpioManager.getValue(line.pin)) == level) continue;
            CORVANE_DEBUG("enableGpio"
                          << " : " << line.name << " = " << enable);
        }
        if (gpioManager.setValue(line.pin, static_cast<GPIO::Value>(level)) != 1) success = false;
    }
    return success;
}

void BluetoothManager::loadModules(bool load) {
    if (!load) {
        runShell("modprobe -r hci_uart_rtk hci_uart rfcomm bluetooth");
        return;
    }
    if (hwcommon::fileUtil::exists(hciDevice)) return;
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    CORVANE_DEBUG("loadModules" << wiring.loadingMessage);
    if (wiring.waitsForWifi) {
        // The modules are loaded even when the interface never comes.
        for (unsigned i = 0; i < wifiPolls && !hwcommon::fileUtil::exists(wifiInterface); ++i) {
            if (waitCondition.wait(wifiPoll, false) != corvane::waitTimedOut) break;
        }
    }
    runShell(wiring.modules);
}

bool BluetoothManager::hciattach(bool attach) {
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    if (!attach) {
        runShell(wiring.detach);
        return true;
    }
    // Deliberate: selected but not waited for; the marker tells which line to look for in a log,
    // and a wait on the system log would hold up every switch-on. Held by
    // HciAttach.DoesNotWaitForTheSystemLog.
    [[maybe_unused]] const char* const marker = wiring.attachMarker;
    releaseDeadControllers();
    runShell(wiring.attach);
    if (!wiring.attachRaisesDevice) hciUp();
    return true;
}

bool BluetoothManager::hciUp() const {
    // A socket that could not be had makes every query fail, which ends in the time-out below.
    const int hciSocket = socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, BTPROTO_HCI);
    const std::uint16_t number = hciNumber();
    for (unsigned attempt = 0; attempt < upAttempts; ++attempt) {
        hci_dev_info info{};
        info.dev_id = number;
        if (ioctl(hciSocket, HCIGETDEVINFO, &info) < 0) {
            CORVANE_INFO("Scanning for " << hciName << "...");
        } else if ((info.flags & (1U << HCI_UP)) != 0) {
            close(hciSocket);
            CORVANE_INFO(hciName << " is up.");
            return true;
        } else {
            const corvane::SignalsBlocked uninterrupted;
            ioctl(hciSocket, HCIDEVUP, number);
            CORVANE_INFO("Waiting for " << hciName << " to become up");
        }
        sleepUninterrupted(upPause);
    }
    close(hciSocket);
    CORVANE_ERROR("Timeout trying to bring up " << hciName);
    return false;
}
