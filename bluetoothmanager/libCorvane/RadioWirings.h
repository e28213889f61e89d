#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <string_view>

namespace corvane {

// Board facts. The library uses them; corvanectl checks and explains them. Not installed.

// In /tmp: the setting survives a restart of the host process, but not a reboot. After a reboot the
// radio is off.
constexpr char flagFile[] = "/tmp/bluetoothEnabled";
constexpr char hciDevice[] = "/sys/class/bluetooth/hci0";
constexpr char wifiInterface[] = "/sys/class/net/wlan0";
constexpr char systemBusSocket[] = "/var/run/dbus/system_bus_socket";
constexpr char systemLog[] = "/var/log/messages";
constexpr char systemLogSnapshot[] = "/tmp/messages_ref";
constexpr char killAndWait[] = "/sbin/kill_and_wait.sh";

/// Boards of this product family have no audio bridge and a single enable line.
constexpr int familyWithoutAudioBridge = 1;

/// The wait for the Wi-Fi interface before the modules are loaded.
constexpr unsigned wifiPolls = 21;
constexpr unsigned wifiPoll = 250;  // milliseconds

/// Twice the length of a BlueZ discovery round, in which LE devices take the first 5.1 s (seen with
/// BlueZ 5.66).
constexpr std::chrono::milliseconds scanLength{10000};

/// The time a phone or a computer has to pair and connect by itself.
constexpr std::chrono::milliseconds pairingLength{60000};

/// A program that start-stop-daemon runs in the background.
struct Daemon {
    const char* program;
    const char* pidFile;
};

constexpr Daemon bluezDaemon{"/usr/libexec/bluetooth/bluetoothd", "/var/run/bluetoothd.pid"};
constexpr Daemon hidDaemon{"/bin/hw_bluez_hid", "/var/run/hw_bluez_hid.pid"};
constexpr Daemon audioBridge{"/bin/bluealsa", "/var/run/bluealsa.pid"};
constexpr Daemon realtekAttach{"/bin/rtk_hciattach", "/var/run/rtk_hciattach.pid"};
constexpr char hciattachProgram[] = "/bin/hciattach";
constexpr char serialLine[] = "/dev/ttyS1";

/// Kernel modules in /usr/lib/modules/RELEASE/kernel/. The wiring's serial driver is loaded between
/// the two.
constexpr char bluetoothModule[] = "net/bluetooth/bluetooth.ko";
constexpr char rfcommModule[] = "net/bluetooth/rfcomm/rfcomm.ko";

/// A GPIO line that powers the radio.
struct EnableLine {
    unsigned pin;      // GPIO number
    const char* name;  // for the log; null: not logged, and driven without reading its level
    bool shared;       // also powers the Wi-Fi; an ordinary switch-off leaves it up
};

/// A radio module and how it is wired.
struct RadioWiring {
    const char* name = nullptr;
    std::array<EnableLine, 3> lines{};
    std::size_t lineCount = 0;
    const char* loadingMessage = nullptr;
    bool waitsForWifi = false;  // load the modules after the Wi-Fi interface appears
    const char* serialDriver = nullptr;
    const char* attach = nullptr;
    const char* detach = nullptr;
    bool attachRaisesDevice = false;     // otherwise hciUp() does
    const char* attachMarker = nullptr;  // kernel log line of a finished attach
};

/// The rows are numbered by BluetoothManager's hardwareVariant.
constexpr std::array<RadioWiring, 3> radioWirings = [] {
    RadioWiring fnLink;  // with a Realtek controller
    fnLink.name = "0: FN-link, three enable lines";
    fnLink.lines = {{{48, "WIFIBT_EN", true}, {153, nullptr, false}, {154, nullptr, false}}};
    fnLink.lineCount = 3;
    fnLink.loadingMessage = " : loading FN-link drivers";
    fnLink.serialDriver = "drivers/bluetooth/bluetooth_uart_driver/hci_uart_rtk.ko";
    // Three-wire (H5) mode at 115200 baud; start-stop-daemon runs it in the background.
    fnLink.attach =
        "start-stop-daemon -S -b -q -m -p /var/run/rtk_hciattach.pid --exec /bin/rtk_hciattach -- "
        "-n -s 115200 /dev/ttyS1 rtk_h5";
    fnLink.detach = "hciconfig hci0 down; /sbin/kill_and_wait.sh rtk_hciattach";
    fnLink.attachMarker = "rtk_btcoex: -x";

    RadioWiring laird;
    laird.name = "1: Laird ST60-SIPT";
    laird.loadingMessage = " : loading Laird ST60-SIPT drivers...";
    laird.waitsForWifi = true;
    laird.serialDriver = "drivers/bluetooth/hci_uart.ko";
    laird.attach = "/bin/hciattach /dev/ttyS1 any -s 3000000 3000000 flow dtron;hciconfig hci0 up";
    laird.detach = "hciconfig hci0 down; /sbin/kill_and_wait.sh hciattach";
    laird.attachRaisesDevice = true;
    laird.attachMarker = "HCI UART protocol H4 registered";

    RadioWiring singleLine = fnLink;
    singleLine.name = "2: FN-link, one enable line";
    singleLine.lines = {{{49, "BT_EN", false}}};
    singleLine.lineCount = 1;
    singleLine.attachMarker = laird.attachMarker;
    return std::array<RadioWiring, 3>{fnLink, laird, singleLine};
}();

// The command lines repeat attach programs, pid file and serial line: check that they agree.
constexpr bool names(const RadioWiring& wiring, std::string_view path) {
    return std::string_view(wiring.attach).find(path) != std::string_view::npos;
}
static_assert(names(radioWirings[0], realtekAttach.program) &&
              names(radioWirings[0], realtekAttach.pidFile) && names(radioWirings[0], serialLine) &&
              names(radioWirings[1], serialLine) && names(radioWirings[1], hciattachProgram));

/// Selects a board's row: the Laird module for model 6, otherwise by the product family.
/// @param modelType      the identity's model
/// @param productFamily  returns the product family; called only if it decides
/// @return the index in radioWirings
template <class ProductFamily>
constexpr std::size_t radioWiringOf(int modelType, const ProductFamily& productFamily) {
    constexpr int modelWithLaird = 6;
    if (modelType == modelWithLaird) return 1;
    return productFamily() == familyWithoutAudioBridge ? 2 : 0;
}

}  // namespace corvane
