#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// One remote device as of the last scan. Copies are independent of the manager's lists.
struct BluetoothConnectionInfo {
    std::string macAddress;  ///< as BlueZ gives it: six two-digit hexadecimal groups joined by ':';
                             ///< empty when BlueZ gave none
    std::string name;        ///< the device's own name, any bytes; its address when it has none
    std::uint32_t deviceClass =
        0;  ///< Class of Device (Bluetooth Assigned Numbers, Baseband): bits 8 to 12 major
            ///< class, 2 to 7 minor class; 0 when unknown
    std::uint16_t vendorId = 0;   ///< from the modalias, field v; 0 when unknown
    std::uint16_t productId = 0;  ///< from the modalias, field p; 0 when unknown
    std::uint16_t versionId = 0;  ///< from the modalias, field d; 0 when unknown
};

/// The manager's snapshot of the devices that BlueZ knows. A paired and connected device is in all
/// three lists, as three copies. There is no lock: nobody may read the lists during a scan.
struct BluetoothDeviceLists {
    std::vector<BluetoothConnectionInfo> allDevices;        ///< every device, in BlueZ's order
    std::vector<BluetoothConnectionInfo> pairedDevices;     ///< devices with Paired true
    std::vector<BluetoothConnectionInfo> connectedDevices;  ///< devices with Connected true
};

/// Selects one of the three lists. Any other number selects all devices.
enum BluetoothDeviceListType : int { ALL_DEVICES = 0, PAIRED_DEVICES = 1, CONNECTED_DEVICES = 2 };

/// The kind of device. The values are the library's own, not the assigned numbers of the major
/// class.
enum BluetoothMajorDeviceClassType : int {
    MAJOR_CLASS_COMPUTER = 0,     ///< assigned number 1
    MAJOR_CLASS_PHONE = 1,        ///< assigned number 2
    MAJOR_CLASS_AUDIO_VIDEO = 2,  ///< assigned number 4
    MAJOR_CLASS_OTHER = 3,        ///< any other number, or no such device
};

/// The scan modes: bit 0 inquiry scan, bit 1 page scan (Bluetooth Core, Write Scan Enable command).
enum BluetoothAdapterScanMode : std::uint32_t {
    SCAN_MODE_DISABLED = 0,
    SCAN_MODE_INQUIRY = 1,
    SCAN_MODE_PAGE = 2,
    SCAN_MODE_INQUIRY_AND_PAGE = 3,
};

/// Predicate that compares a record's name byte for byte (case-sensitive, nothing trimmed).
class find_deviceName {
public:
    /// @param wantedName  the name to look for
    explicit find_deviceName(std::string wantedName) : wanted(std::move(wantedName)) {}

    /// @param info  the record
    /// @return whether the record has the wanted name
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
