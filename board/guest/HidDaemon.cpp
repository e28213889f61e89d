// hw_bluez_hid: the appliance's HID service on the system bus. Connecting a device opens its two
// HID channels over an encrypted link. They stay open until the device or a call closes them.

#include "L2cap.h"
#include "hwcommon/Sdbus.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/l2cap.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>

#include <syslog.h>

namespace {

constexpr const char* busName = "org.corvane.BluetoothHid";
constexpr const char* objectPath = "/org/corvane/BluetoothHid";
constexpr const char* interfaceName = "org.corvane.BluetoothHid1";
constexpr int connectTime = 20000;  // ms per channel; a page alone takes up to 5.12 s

constexpr const char* usage =
    "usage: hw_bluez_hid REVISION MODEL\n"
    "  REVISION  the board's revision, a decimal number\n"
    "  MODEL     the model's name\n";

class HidService {
public:
    std::string connect(const std::string& address) {
        try {
            if (bachk(address.c_str()) != 0) throw std::runtime_error("no address: " + address);
            Device& device = devices_[address];
            if (!isOpen(device)) {
                device = {};
                device.control = open(address, board::psmHidControl);
                device.interrupt = open(address, board::psmHidInterrupt);
            }
        } catch (const std::exception& error) {
            devices_.erase(address);
            syslog(LOG_ERR, "connecting %s: %s", address.c_str(), error.what());
            return std::string("Connect failed: ") + error.what();
        }
        syslog(LOG_INFO, "connected %s", address.c_str());
        return "Connect success";
    }

    /// Disconnects a device. Succeeds too if it has already gone.
    std::string disconnect(const std::string& address) {
        if (devices_.erase(address) != 0) syslog(LOG_INFO, "disconnected %s", address.c_str());
        return "Disconnect success";
    }

private:
    struct Device {
        board::UniqueFd control, interrupt;
    };

    static bool isOpen(const Device& device) {
        return device.control && board::channelIsOpen(device.control.get()) &&
               board::channelIsOpen(device.interrupt.get());
    }

    static board::UniqueFd open(const std::string& address, std::uint16_t psm) {
        board::UniqueFd fd = board::l2capSocket("00:00:00:00:00:00", 0);
        bt_security security{};
        security.level = BT_SECURITY_MEDIUM;  // encrypted, as HID requires
        if (setsockopt(fd.get(), SOL_BLUETOOTH, BT_SECURITY, &security, sizeof security) != 0) {
            board::throwErrno("asking for an encrypted link");
        }
        board::l2capConnect(fd.get(), address, psm, connectTime);
        return fd;
    }

    std::map<std::string, Device> devices_;
};

}  // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    // Hosts add --no-close to the command; start-stop-daemon takes that option itself.
    if (argc != 3 || (std::strtoul(argv[1], &end, 10), end == argv[1] || *end != '\0')) {
        std::fputs(usage, stderr);
        return 2;
    }
    // The emulated processor is slow and has one core: give way to bluetoothd, which starts at the
    // same time.
    [[maybe_unused]] const int niceness = nice(10);
    openlog("hw_bluez_hid", LOG_PID, LOG_DAEMON);
    try {
        HidService service;
        const auto connection = sdbus::createSystemBusConnection(hwcommon::ServiceName(busName));
        const auto object = sdbus::createObject(*connection, sdbus::ObjectPath(objectPath));
        hwcommon::serve(*object, interfaceName,
                        hwcommon::Method{"Connect",
                                         [&service](const std::string& address) {
                                             return service.connect(address);
                                         }},
                        hwcommon::Method{"Disconnect", [&service](const std::string& address) {
                                             return service.disconnect(address);
                                         }});
        syslog(LOG_INFO, "serving %s revision %s", argv[2], argv[1]);
        connection->enterEventLoop();
    } catch (const sdbus::Error& error) {
        std::fprintf(stderr, "hw_bluez_hid: %s\n", error.what());
        syslog(LOG_ERR, "%s", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
