#include "BluetoothManager.h"

#include "RadioWirings.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"

#include <atomic>
#include <chrono>
#include <string>
#include <utility>

namespace {

constexpr int discoverableSeconds = 300;

BluetoothRequestAnswers waitUntilConnected(BluetoothManager& manager, const std::string& deviceName,
                                           const std::atomic<bool>& cancelFlag) {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;

    const auto start = steady_clock::now();
    // No pause: the bus call paces each pass.
    while (true) {
        if (cancelFlag.load()) return REQUEST_FAILED;
        manager.scanDevicesInfo();
        const bool found = manager.searchForDevicesName(CONNECTED_DEVICES, deviceName);
        // The time is checked first: a device found after the limit is too late.
        if (duration_cast<milliseconds>(steady_clock::now() - start) > corvane::pairingLength) {
            return REQUEST_TIMEOUT;
        }
        if (found) return REQUEST_SUCCESS;
        if (cancelFlag.load()) return REQUEST_CANCELLED;
    }
}

BluetoothRequestAnswers pairAudioDevice(BluetoothManager& manager, const std::string& deviceName,
                                        const std::string& address) {
    // Deliberate: a failed pairing still tries to connect, but the answer stays failed even if the
    // connection works: such a pairing is unreliable. Held by
    // WaitForAudio.TriesToConnectAPlaybackDeviceEvenIfPairingFails.
    const BluetoothRequestAnswers pairing =
        manager.pairDevice(address.c_str()) ? REQUEST_SUCCESS : REQUEST_FAILED;
    manager.scanDevicesInfo();
    const auto info = manager.getDeviceInfo(PAIRED_DEVICES, deviceName);
    if (!info) return REQUEST_DEVICE_NOT_FOUND;
    if (manager.isPlaybackDevice(*info) && !manager.connectDevice(info->macAddress.c_str())) {
        return REQUEST_CONNECT_FAILED;
    }
    return pairing;
}

}  // namespace

WaitBluetoothPairingRequest::WaitBluetoothPairingRequest() : BluetoothRequest(nullptr) {
    requestName = "WaitBluetoothPairingRequest";
}

WaitBluetoothPairingRequest::WaitBluetoothPairingRequest(
    std::function<void(BluetoothRequestAnswers)> callback, std::string name)
    : BluetoothRequest(std::move(callback)), deviceName(std::move(name)) {}

void WaitBluetoothPairingRequest::executeRequest() {
    runningFlag = true;
    BluetoothManager& manager = BluetoothManager::getInstance();
    // Deliberate: trusted before it is paired or even known, because BlueZ refuses service
    // connections from untrusted devices. Held by
    // WaitRequest.TrustsBeforeItMakesTheAdapterDiscoverable.
    const std::string address = manager.getDeviceMacAddress(ALL_DEVICES, deviceName);
    manager.deviceSetTrusted(address.c_str(), true);
    manager.adapterSetDiscoverable(true);
    manager.adapterSetDiscoverableTimeout(discoverableSeconds);
    manager.scanDevicesInfo();
    const BluetoothMajorDeviceClassType majorClass =
        manager.getMajorDeviceClass(ALL_DEVICES, deviceName);

    BluetoothRequestAnswers result = REQUEST_FAILED;
    switch (majorClass) {
        case MAJOR_CLASS_COMPUTER:
        case MAJOR_CLASS_PHONE:
            result = waitUntilConnected(manager, deviceName, cancelFlag);
            break;
        case MAJOR_CLASS_AUDIO_VIDEO:
            if (!cancelFlag.load()) result = pairAudioDevice(manager, deviceName, address);
            break;
        case MAJOR_CLASS_OTHER:
            break;
    }

    answer(result);
    runningFlag = false;
}

void WaitBluetoothPairingRequest::requestCancelFallback() {}
