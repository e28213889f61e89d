#include "BluetoothManager.h"

#include "LogAppender.h"
#include "SystemCalls.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <array>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using corvane::aboveStandardStreams;

namespace {

constexpr int deviceNumber = 0;
constexpr int classTimeout = 1000;  // milliseconds, for each of read and write

// Children must not inherit the descriptors that stay open: the HID daemon closes none.

int openHciSocket() {
    return aboveStandardStreams(socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, BTPROTO_HCI));
}

int openHciDevice() {
    const int device = aboveStandardStreams(hci_open_dev(deviceNumber));
    if (device != -1) fcntl(device, F_SETFD, FD_CLOEXEC);
    return device;
}

int setDeviceOption(int hciSocket, unsigned long command, std::uint32_t option) {
    hci_dev_req request{};
    request.dev_id = deviceNumber;
    request.dev_opt = option;
    const corvane::SignalsBlocked uninterrupted;
    return ioctl(hciSocket, command, &request);
}

}  // namespace

std::uint32_t BluetoothManager::adapterSetClass(std::uint32_t classOfDevice) {
    const int device = openHciDevice();
    if (device == -1) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Can not open the bluetooth device");
        return 0;
    }
    classDescriptors.push_back(device);
    const corvane::SignalsBlocked uninterrupted;
    std::array<std::uint8_t, 3> before{};
    if (hci_read_class_of_dev(device, before.data(), classTimeout) == -1) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Can not read HCI class");
        return 0;
    }
    if (hci_write_class_of_dev(device, classOfDevice, classTimeout) == -1) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Can not set HCI class");
        return 0;
    }
    return (std::uint32_t{before[2]} << 16) | (std::uint32_t{before[1]} << 8) | before[0];
}

bool BluetoothManager::adapterSetDiscoverableMode(BluetoothAdapterScanMode /*mode*/) const {
    const int hciSocket = openHciSocket();
    if (hciSocket < 0) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Can't open HCI socket.");
        return false;
    }
    // Deliberate: always off. The appliance becomes discoverable only through BlueZ's Discoverable
    // property, while it waits for a pairing. Held by RawHci.ScanModeIsAlwaysOff.
    if (setDeviceOption(hciSocket, HCISETSCAN, SCAN_DISABLED) < 0) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Can't set scan mode on hci");
        return false;
    }
    return true;
}

bool BluetoothManager::preventRoleSwitch() const {
    const int hciSocket = openHciSocket();
    if (hciSocket < 0) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Can't open HCI socket.");
        return false;
    }
    if (setDeviceOption(hciSocket, HCISETLINKMODE, HCI_LM_ACCEPT | HCI_LM_MASTER) < 0) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Can't set MASTER mode on hci");
        return false;
    }
    return true;
}

void BluetoothManager::releaseDeadControllers() {
    // Since Linux 5.15 an open HCI socket keeps its detached controller and index 0, so the next
    // attach would create hci1, which we do not use. Rebinding frees it; while the controller is
    // present the kernel refuses.
    sockaddr_hci nowhere{};
    nowhere.hci_family = AF_BLUETOOTH;
    nowhere.hci_dev = HCI_DEV_NONE;
    nowhere.hci_channel = HCI_CHANNEL_RAW;
    const auto isFree = [&nowhere](int device) {
        return bind(device, reinterpret_cast<const sockaddr*>(&nowhere), sizeof nowhere) == 0;
    };
    classDescriptors.erase(std::remove_if(classDescriptors.begin(), classDescriptors.end(), isFree),
                           classDescriptors.end());
}
