#include "BluetoothManager.h"

#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

#include <algorithm>

namespace {

const BluetoothConnectionInfo* find(const std::vector<BluetoothConnectionInfo>& list,
                                    const std::string& name) {
    const auto match = std::find_if(list.begin(), list.end(), find_deviceName(name));
    return match == list.end() ? nullptr : &*match;
}

// Minor classes of the major class audio/video (Bluetooth Assigned Numbers, Baseband).
constexpr std::uint32_t wearableHeadset = 1;
constexpr std::uint32_t handsFree = 2;
constexpr std::uint32_t loudspeaker = 5;
constexpr std::uint32_t headphones = 6;

}  // namespace

const std::uint16_t BluetoothManager::appleVendorId;

std::shared_ptr<BluetoothConnectionInfo> BluetoothManager::getDeviceInfo(
    BluetoothDeviceListType type, const std::string& name) {
    const BluetoothConnectionInfo* match = find(getBluetoothDeviceList(type), name);
    return match == nullptr ? nullptr : std::make_shared<BluetoothConnectionInfo>(*match);
}

std::string BluetoothManager::getDeviceMacAddress(BluetoothDeviceListType type, std::string name) {
    LOG4CPLUS_TRACE(LogAppender::getLogger(), "Searching for " << name << " MAC address");
    const BluetoothConnectionInfo* match = find(getBluetoothDeviceList(type), name);
    return match == nullptr ? std::string() : match->macAddress;
}

BluetoothMajorDeviceClassType BluetoothManager::getMajorDeviceClass(BluetoothDeviceListType type,
                                                                    std::string name) {
    LOG4CPLUS_TRACE(LogAppender::getLogger(), "Searching for " << name << " class");
    const BluetoothConnectionInfo* match = find(getBluetoothDeviceList(type), name);
    return match == nullptr ? MAJOR_CLASS_OTHER : getMajorDeviceClass(*match);
}

bool BluetoothManager::searchForDevicesName(BluetoothDeviceListType type, std::string name) {
    LOG4CPLUS_TRACE(LogAppender::getLogger(), "Searching for " << name << "...");
    return find(getBluetoothDeviceList(type), name) != nullptr;
}

std::uint16_t BluetoothManager::getVendorId(BluetoothDeviceListType type, std::string name) {
    const BluetoothConnectionInfo* match = find(getBluetoothDeviceList(type), name);
    return match == nullptr ? std::uint16_t{0} : match->vendorId;
}

bool BluetoothManager::isPlaybackDevice(const BluetoothConnectionInfo& info) {
    constexpr char signature[] =
        "bool BluetoothManager::isPlaybackDevice(const BluetoothConnectionInfo&)";
    if (getMajorDeviceClass(info) != MAJOR_CLASS_AUDIO_VIDEO) return false;
    // Deliberate: only five of the minor class's six bits; bit 7 is ignored. Do not widen. Held by
    // IsPlaybackDevice.IgnoresBit7.
    const std::uint32_t minorClass = (info.deviceClass >> 2) & 0x1F;
    LOG4CPLUS_DEBUG(LogAppender::getLogger(),
                    signature << " minor device class of " << info.name << " : " << minorClass);
    if (minorClass != wearableHeadset && minorClass != handsFree && minorClass != loudspeaker &&
        minorClass != headphones) {
        return false;
    }
    LOG4CPLUS_DEBUG(LogAppender::getLogger(), signature << info.name << " is a playback device");
    return true;
}
