// A host application that pairs with a device, unless it is paired, and connects it.

#include "Requests.h"

#include <bluetoothRequests/ConnectBluetoothRequest.h>
#include <bluetoothRequests/ScanBluetoothRequest.h>
#include <bluetoothRequests/WaitBluetoothPairingRequest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <string>

#include <hwcommon/DBusBluetoothHidProxy.h>

namespace {

int pairAndConnect(const std::string& name) {
    // The HID service connects phones and computers. Its proxy takes the host's own connection to
    // the system bus; both must outlive the requests that use the proxy.
    const auto connection = sdbus::createSystemBusConnection();
    hwcommon::DBusBluetoothHidProxy hid(*connection);

    BluetoothManager& bluetooth = BluetoothManager::getInstance();
    bluetooth.setEnabled(true, false);
    // Requests find the device by its name in the lists, so refill those after each one.
    BluetoothRequestAnswers answer = perform<ScanBluetoothRequest>(bluetooth);
    bluetooth.scanDevicesInfo();
    if (!bluetooth.searchForDevicesName(PAIRED_DEVICES, name)) {
        answer = perform<WaitBluetoothPairingRequest>(bluetooth, name);
        bluetooth.scanDevicesInfo();
    }
    if (answer == REQUEST_SUCCESS && !bluetooth.searchForDevicesName(CONNECTED_DEVICES, name)) {
        answer = perform<ConnectBluetoothRequest>(bluetooth, &hid, name);
    }
    std::cout << (answer == REQUEST_SUCCESS ? "connected" : "not connected") << ", answer "
              << answer << '\n';
    return answer == REQUEST_SUCCESS ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int count, char* arguments[]) {
    if (count != 2) {
        std::cerr << "usage: pair NAME\n";
        return EXIT_FAILURE;
    }
    runAndLeave([&] { return pairAndConnect(arguments[1]); });
}
