#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// One remote device, as the last scan saw it. A plain value: copies are independent of the
/// manager's lists.
struct BluetoothConnectionInfo {
    std::string macAddress;  ///< as BlueZ gives it: six two-digit hexadecimal groups joined by ':';
                             ///< empty when BlueZ gave none
    std::string name;        ///< the remote's own name, any bytes; the address when it has none
    std::uint32_t deviceClass =
        0;  ///< Class of Device (Bluetooth Assigned Numbers, Baseband): bits 8 to 12 major
            ///< class, 2 to 7 minor class; 0 when unknown
    std::uint16_t vendorId = 0;   ///< from the modalias, field v; 0 when unknown
    std::uint16_t productId = 0;  ///< from the modalias, field p; 0 when unknown
    std::uint16_t versionId = 0;  ///< from the modalias, field d; 0 when unknown
};

/// The manager's snapshot of the devices that BlueZ knows. A device that is paired and connected
/// stands in all three lists, as three copies. Not locked: no reader may use the lists while a scan
/// refills them.
struct BluetoothDeviceLists {
    std::vector<BluetoothConnectionInfo> allDevices;     ///< every device, in BlueZ's order
    std::vector<BluetoothConnectionInfo> pairedDevices;  ///< those with Paired true, same order
    std::vector<BluetoothConnectionInfo>
        connectedDevices;  ///< those with Connected true, same order
};

/// Selects one of the three lists. Every operation takes any number: those without a name here mean
/// all devices.
enum BluetoothDeviceListType : int { ALL_DEVICES = 0, PAIRED_DEVICES = 1, CONNECTED_DEVICES = 2 };

/// What kind of device it is. The numbers are the library's own, not the assigned numbers of the
/// major class.
enum BluetoothMajorDeviceClassType : int {
    MAJOR_CLASS_COMPUTER = 0,     ///< assigned number 1
    MAJOR_CLASS_PHONE = 1,        ///< assigned number 2
    MAJOR_CLASS_AUDIO_VIDEO = 2,  ///< assigned number 4
    MAJOR_CLASS_OTHER = 3,  ///< every other number; also the answer for a name that no device has
};

/// The scan modes of the HCI scan-enable setting: bit 0 inquiry scan, bit 1 page scan (Bluetooth
/// Core, Write Scan Enable command).
enum BluetoothAdapterScanMode : std::uint32_t {
    SCAN_MODE_DISABLED = 0,
    SCAN_MODE_INQUIRY = 1,
    SCAN_MODE_PAGE = 2,
    SCAN_MODE_INQUIRY_AND_PAGE = 3,
};

/// Predicate: true for a record whose name equals the wanted one byte for byte (case-sensitive,
/// nothing trimmed).
class find_deviceName {
public:
    explicit find_deviceName(std::string wantedName) : wanted(std::move(wantedName)) {}

    bool operator()(const BluetoothConnectionInfo& info) const { return info.name == wanted; }

private:
    std::string wanted;
};

/// The three ids of a modalias text such as "bluetooth:v004Cp0269d0001".
struct ModaliasIds {
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::uint16_t versionId = 0;
};
