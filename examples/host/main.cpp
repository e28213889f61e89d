// A host application that switches Bluetooth on, discovers devices and prints them.

#include <BluetoothManager.h>
#include <bluetoothRequests/ScanBluetoothRequest.h>

#include <cstdlib>
#include <exception>
#include <future>
#include <iostream>
#include <memory>

namespace {

BluetoothRequestAnswers scan(BluetoothManager& bluetooth) {
    // The callback runs on the request's own thread, so it only passes the answer on.
    auto answer = std::make_shared<std::promise<BluetoothRequestAnswers>>();
    auto arrival = answer->get_future();
    auto request = std::make_shared<ScanBluetoothRequest>(
        [answer](BluetoothRequestAnswers value) { answer->set_value(value); });
    if (!bluetooth.makeRequest(request)) return REQUEST_FAILED;
    return arrival.get();
}

int run() {
    BluetoothManager& bluetooth = BluetoothManager::getInstance();
    bluetooth.setEnabled(true, false);
    if (scan(bluetooth) != REQUEST_SUCCESS) {
        std::cerr << "the scan did not finish\n";
        return EXIT_FAILURE;
    }
    bluetooth.scanDevicesInfo();
    for (const auto& device : bluetooth.getBluetoothDeviceInfoList(ALL_DEVICES)) {
        std::cout << device.macAddress << "  " << device.name << '\n';
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main() {
    int status = EXIT_FAILURE;
    try {
        status = run();
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
    }
    // After a request the manager must not be destroyed: leave without running destructors.
    std::cout << std::flush;
    std::quick_exit(status);
}
