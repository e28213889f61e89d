#include "BluetoothManager.h"

#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <utility>

DisconnectBluetoothRequest::DisconnectBluetoothRequest() : BluetoothRequest(nullptr) {
    requestName = "DisconnectBluetoothRequest";
}

DisconnectBluetoothRequest::DisconnectBluetoothRequest(
    std::function<void(BluetoothRequestAnswers)> callback, hwcommon::DBusBluetoothHidProxy* proxy,
    std::string name)
    : BluetoothRequest(std::move(callback)), hidProxy(proxy), deviceName(std::move(name)) {}

void DisconnectBluetoothRequest::executeRequest() {
    runningFlag = true;
    BluetoothManager& manager = BluetoothManager::getInstance();
    // Deliberate: the address comes from the connected devices, the class from all devices. A
    // device that has already dropped is still tried, with an empty address. Held by
    // DisconnectRequest.UsesConnectedAddressesAndAnyKnownClass.
    const std::string address = manager.getDeviceMacAddress(CONNECTED_DEVICES, deviceName);
    const BluetoothMajorDeviceClassType majorClass =
        manager.getMajorDeviceClass(ALL_DEVICES, deviceName);

    BluetoothRequestAnswers result = REQUEST_FAILED;
    if (majorClass != MAJOR_CLASS_OTHER) {
        // Deliberate: retries without limit or pause until it works or is cancelled. A device that
        // plays on after its user said "disconnect" is worse than a busy bus. Held by
        // DisconnectRequest.RetriesUntilCancelled.
        while (!cancelFlag.load()) {
            if (!manager.disconnectDevice(address.c_str())) continue;
            if (majorClass != MAJOR_CLASS_AUDIO_VIDEO && hidProxy != nullptr) {
                hidProxy->disconnectBtHidDevice(address);
            }
            result = REQUEST_SUCCESS;
            break;
        }
    }

    answer(result);
    runningFlag = false;
}

void DisconnectBluetoothRequest::requestCancelFallback() {}
