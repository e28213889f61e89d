#pragma once

#include <array>

namespace corvanectl {

/// What the library finds in a file's place, or expects to.
enum class NeedKind {
    tool,       ///< a program that the shell looks up in PATH
    program,    ///< an executable at this path
    module,     ///< a kernel module, path below /usr/lib/modules/RELEASE/kernel/
    character,  ///< a character device
    log,        ///< a file that is written to by others and can be read
    ours,       ///< a file that the library writes; its folder has to be writable
    present,    ///< there in some states and not in others: shown only
};

// The wirings that need something, as bits; BluetoothManager numbers them.
constexpr unsigned fnLink = 1U << 0;
constexpr unsigned laird = 1U << 1;
constexpr unsigned fnLinkSingleLine = 1U << 2;
constexpr unsigned anyFnLink = fnLink | fnLinkSingleLine;
constexpr unsigned allWirings = fnLink | laird | fnLinkSingleLine;

struct BoardNeed {
    NeedKind kind;
    const char* path;
    unsigned wirings;
    const char* purpose;
    const char* remedy;
};

/// The product family whose boards run no audio bridge.
constexpr int familyWithoutAudioBridge = 1;
constexpr char audioBridge[] = "/bin/bluealsa";
constexpr char adapter[] = "/sys/class/bluetooth/hci0";

/// Every file and program that the library relies on. A test compares it with the library's
/// sources.
constexpr std::array<BoardNeed, 32> boardNeeds{{
    {NeedKind::tool, "rfkill", allWirings, "blocks and unblocks the radio",
     "install the package rfkill"},
    {NeedKind::tool, "insmod", allWirings, "loads the kernel modules", "install the package kmod"},
    {NeedKind::tool, "modprobe", allWirings, "unloads the kernel modules",
     "install the package kmod"},
    {NeedKind::tool, "uname", allWirings, "names the folder of the kernel modules",
     "install the package coreutils"},
    {NeedKind::tool, "hciconfig", allWirings, "takes the adapter down or up",
     "install BlueZ with its deprecated tools"},
    {NeedKind::tool, "start-stop-daemon", allWirings, "starts the daemons",
     "install the package dpkg, or busybox with this applet"},
    {NeedKind::tool, "killall", allWirings, "stops the audio bridge",
     "install the package psmisc, or busybox with this applet"},
    {NeedKind::tool, "cp", allWirings, "takes the snapshot of the system log",
     "install the package coreutils"},
    {NeedKind::tool, "diff", allWirings, "finds what the system log has gained",
     "install the package diffutils"},
    {NeedKind::tool, "grep", allWirings, "searches what the system log has gained",
     "install the package grep"},
    {NeedKind::program, "/sbin/kill_and_wait.sh", allWirings, "stops the daemons",
     "install the board's script that ends a program by name and waits for its end"},
    {NeedKind::program, "/usr/libexec/bluetooth/bluetoothd", allWirings, "the BlueZ daemon",
     "install BlueZ, its daemon at this path"},
    {NeedKind::program, "/bin/hw_bluez_hid", allWirings, "the HID daemon",
     "install the board's HID daemon at this path"},
    {NeedKind::program, audioBridge, allWirings, "the audio bridge",
     "install bluealsa at this path"},
    {NeedKind::program, "/bin/rtk_hciattach", anyFnLink, "attaches the Realtek controller",
     "install the radio module's attach program at this path"},
    {NeedKind::program, "/bin/hciattach", laird, "attaches the controller",
     "install BlueZ with its deprecated tools, hciattach at this path"},
    {NeedKind::module, "net/bluetooth/bluetooth.ko", allWirings, "Bluetooth in the kernel",
     "install the modules of the kernel that runs, not compressed, and run depmod"},
    {NeedKind::module, "net/bluetooth/rfcomm/rfcomm.ko", allWirings, "serial connections",
     "install the modules of the kernel that runs, not compressed, and run depmod"},
    {NeedKind::module, "drivers/bluetooth/bluetooth_uart_driver/hci_uart_rtk.ko", anyFnLink,
     "the serial driver of the Realtek controller",
     "install the radio module's driver for the kernel that runs, and run depmod"},
    {NeedKind::module, "drivers/bluetooth/hci_uart.ko", laird, "the serial driver",
     "install the modules of the kernel that runs, not compressed, and run depmod"},
    {NeedKind::character, "/dev/ttyS1", allWirings, "the controller's serial line",
     "enable the serial port in the device tree; it has to appear, or be linked, at this path"},
    {NeedKind::log, "/var/log/messages", allWirings, "the system log",
     "run a system log daemon that writes there, kernel messages included"},
    {NeedKind::ours, "/tmp/messages_ref", allWirings, "snapshot of the system log",
     "make the folder writable, or remove what others left at this path"},
    {NeedKind::ours, "/tmp/bluetoothEnabled", allWirings, "the persisted setting",
     "make the folder writable, or remove what others left at this path"},
    {NeedKind::ours, "/var/run/bluetoothd.pid", allWirings, "pid file of the BlueZ daemon",
     "make the folder writable"},
    {NeedKind::ours, "/var/run/hw_bluez_hid.pid", allWirings, "pid file of the HID daemon",
     "make the folder writable"},
    {NeedKind::ours, "/var/run/bluealsa.pid", allWirings, "pid file of the audio bridge",
     "make the folder writable"},
    {NeedKind::ours, "/var/run/rtk_hciattach.pid", anyFnLink, "pid file of the attach program",
     "make the folder writable"},
    {NeedKind::present, "/var/run/dbus/system_bus_socket", allWirings,
     "the bus that the audio bridge is told", "start dbus-daemon for the system bus"},
    {NeedKind::present, adapter, allWirings, "the adapter", ""},
    {NeedKind::present, "/sys/class/net/wlan0", laird, "the Wi-Fi, waited for before the modules",
     "load the Wi-Fi's driver before"},
    {NeedKind::present, "/dev/gpiochip0", anyFnLink, "the lines that power the radio",
     "enable the kernel's GPIO character devices"},
}};

}  // namespace corvanectl
