#include "BluetoothManager.h"

#include "LogAppender.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <utility>

namespace {

constexpr char toggleSignature[] = "bool ConnectBluetoothRequest::toggleAudioDevices()";

}  // namespace

ConnectBluetoothRequest::ConnectBluetoothRequest(
    std::function<void(BluetoothRequestAnswers)> callback, hwcommon::DBusBluetoothHidProxy* proxy,
    std::string name)
    : BluetoothRequest(std::move(callback)), hidProxy(proxy), deviceName(std::move(name)) {
    requestName = "ConnectBluetoothRequest";
}

void ConnectBluetoothRequest::executeRequest() {
    runningFlag = true;
    BluetoothManager& manager = BluetoothManager::getInstance();
    const std::string address = manager.getDeviceMacAddress(PAIRED_DEVICES, deviceName);
    const BluetoothMajorDeviceClassType majorClass =
        manager.getMajorDeviceClass(PAIRED_DEVICES, deviceName);

    BluetoothRequestAnswers result = REQUEST_FAILED;
    if (!cancelFlag.load()) {
        switch (majorClass) {
            case MAJOR_CLASS_COMPUTER:
            case MAJOR_CLASS_PHONE:
                result = connectThroughHid(address);
                break;
            case MAJOR_CLASS_AUDIO_VIDEO:
                // Deliberate: the HID service may connect an audio device that BlueZ cannot (a
                // headset with keys). Held by
                // ConnectRequest.FallsBackToHidWhenTheAudioConnectionFails.
                result = toggleAudioDevices() ? REQUEST_SUCCESS : connectThroughHid(address);
                break;
            case MAJOR_CLASS_OTHER:
                break;
        }
    }

    // Deliberate: unlike other requests this one ends before its callback, so that the callback can
    // start the next request. Held by
    // RequestCallback.MayStartTheNextRequestOnlyAfterAConnect.
    runningFlag = false;
    answer(result);
}

bool ConnectBluetoothRequest::toggleAudioDevices() {
    BluetoothManager& manager = BluetoothManager::getInstance();
    const auto paired = manager.getBluetoothDeviceInfoList(PAIRED_DEVICES);
    const auto connected = manager.getBluetoothDeviceInfoList(CONNECTED_DEVICES);

    const auto target = std::find_if(paired.begin(), paired.end(), find_deviceName(deviceName));
    if (target == paired.end() || !manager.isPlaybackDevice(*target)) return false;

    for (const BluetoothConnectionInfo& other : connected) {
        if (manager.isPlaybackDevice(other) && other.name != deviceName) {
            LOG4CPLUS_DEBUG(LogAppender::getLogger(),
                            toggleSignature << " Disconnecting " << other.name);
            manager.disconnectDevice(other.macAddress.c_str());
        }
    }
    LOG4CPLUS_DEBUG(LogAppender::getLogger(),
                    toggleSignature << " Trying to connect to " << target->name);
    return manager.connectDevice(target->macAddress.c_str());
}

BluetoothRequestAnswers ConnectBluetoothRequest::connectThroughHid(const std::string& address) {
    if (hidProxy == nullptr) return REQUEST_FAILED;
    return hidProxy->connectBtHidDevice(address) == "Connect success" ? REQUEST_SUCCESS
                                                                      : REQUEST_FAILED;
}

void ConnectBluetoothRequest::requestCancelFallback() {}
