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
