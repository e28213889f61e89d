#include "BluetoothManager.h"

#include <algorithm>
#include <iterator>
#include <utility>

std::vector<BluetoothConnectionInfo>& BluetoothManager::getBluetoothDeviceList(
    BluetoothDeviceListType type) {
    // Any number selects a list, so that no operation needs an error for it.
    if (type == PAIRED_DEVICES) return deviceLists.pairedDevices;
    if (type == CONNECTED_DEVICES) return deviceLists.connectedDevices;
    return deviceLists.allDevices;
}

std::vector<std::string> BluetoothManager::getBluetoothDeviceListNames(
    BluetoothDeviceListType type) {
    const auto& list = getBluetoothDeviceList(type);
    std::vector<std::string> names;
    names.reserve(list.size());
    std::transform(list.begin(), list.end(), std::back_inserter(names),
                   [](const BluetoothConnectionInfo& info) { return info.name; });
    return names;
}

unsigned int BluetoothManager::getBluetoothDeviceListSize(BluetoothDeviceListType type) {
    return static_cast<unsigned int>(getBluetoothDeviceList(type).size());
}

std::vector<BluetoothConnectionInfo> BluetoothManager::getBluetoothDeviceInfoList(
    BluetoothDeviceListType type) {
    return getBluetoothDeviceList(type);
}

void BluetoothManager::addNewDeviceToList(BluetoothDeviceListType type,
                                          BluetoothConnectionInfo info) {
    getBluetoothDeviceList(type).push_back(std::move(info));
}
