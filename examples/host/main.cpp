// A host application that switches Bluetooth on, discovers devices and prints them.

#include "Requests.h"

#include <bluetoothRequests/ScanBluetoothRequest.h>

#include <algorithm>
#include <string>

namespace {

// Strangers choose the names: what could steer a terminal becomes a question mark.
std::string printable(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return name;
}

int listDevices() {
    BluetoothManager& bluetooth = BluetoothManager::getInstance();
    bluetooth.setEnabled(true, false);
    if (perform<ScanBluetoothRequest>(bluetooth) != REQUEST_SUCCESS) {
        std::cerr << "the scan did not finish\n";
        return EXIT_FAILURE;
    }
    bluetooth.scanDevicesInfo();
    for (const auto& device : bluetooth.getBluetoothDeviceInfoList(ALL_DEVICES)) {
        std::cout << device.macAddress << "  " << printable(device.name) << '\n';
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main() { runAndLeave(listDevices); }
