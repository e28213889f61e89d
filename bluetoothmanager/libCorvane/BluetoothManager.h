#pragma once

#include "BluetoothDevices.h"
#include "BluetoothRequest.h"
#include "CorvaneExport.h"
#include "GPIO/GPIOManager.h"
#include "eepromXML.h"
#include "hwtools/Condition.h"

#include <gio/gio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace sdbus {
class IConnection;
}
namespace hwcommon {
class DBusProxy;
}

/// The appliance's Bluetooth radio. One object per process: it owns the radio's power, the BlueZ
/// stack, the lists of remote devices and the running request.
///
/// Threads: a host calls it from one controlling thread; each request runs on a thread of its own
/// and uses the manager meanwhile. There is no lock: the host serialises setEnabled() and
/// setAirplaneMode(), device scans must not overlap, nobody reads the device lists while a scan
/// refills them, and no other thread iterates GLib's default main context during a scan.
///
/// Errors are returned, never thrown, unless an operation says otherwise; what failed is in the
/// log.
///
/// Leaving the process: once a request has been started, destroying the manager ends in
/// std::terminate() (see the destructor). Hosts leave through std::quick_exit() after their own
/// shut-down.
class CORVANE_EXPORT BluetoothManager {
public:
    /// The one manager. The first call constructs it, which takes seconds: it reads the board
    /// identity, opens the system bus, takes the enable lines and loads the kernel modules.
    /// Concurrent first calls wait for that one construction. Throws what sdbus-c++ throws when
    /// there is no system bus, and std::system_error when no descriptor is left; the next call then
    /// tries again.
    static BluetoothManager& getInstance() {
        static BluetoothManager instance;
        return instance;
    }

    BluetoothManager(const BluetoothManager&) = delete;
    BluetoothManager& operator=(const BluetoothManager&) = delete;

    /// @name Switching on and off
    /// @{

    /// The persisted setting; false when nothing was set since the last boot.
    /// Throws std::invalid_argument or std::out_of_range when the flag file /tmp/bluetoothEnabled
    /// holds no number.
    bool getEnabled() const;

    /// Switches Bluetooth on or off and persists the setting. Does nothing when the persisted
    /// setting is the wanted one already. Blocks for several seconds. Success shows in getEnabled()
    /// only as far as it goes: the setting records the request, not the outcome; failures are in
    /// the log. Throws like getEnabled(), before anything is done.
    /// @param forced  when switching off: lower the power line that Wi-Fi shares, too
    void setEnabled(bool enable, bool forced);

    /// Lowers all enable lines, the one shared with Wi-Fi included, and unloads the kernel modules
    /// (on), or reverts that (off). Leaves daemons, attach and persisted setting alone.
    void setAirplaneMode(bool on);

    /// @}
    /// @name Requests
    /// @{

    /// Starts a request on a thread of its own. Returns at once.
    /// @return true when started; false when another one is running (its name is logged) or
    /// `request` is null Throws std::system_error when no thread can be had.
    bool makeRequest(std::shared_ptr<BluetoothRequest> request);

    /// Asks the request started last to stop. Returns at once.
    void cancelRequest();

    /// @}
    /// @name Device lists, as the last scan left them
    /// @{

    /// Refills the three lists from BlueZ. Blocks until BlueZ has answered or the bus's time limit
    /// (25 s) has passed; runs GLib's default main context meanwhile.
    /// @return always true; when there is no answer or no bus connection, that is logged and the
    /// lists are empty
    bool scanDevicesInfo();

    /// The list itself. The reference's content changes with the next scan.
    std::vector<BluetoothConnectionInfo>& getBluetoothDeviceList(BluetoothDeviceListType type);

    /// The names, one per record, in list order.
    std::vector<std::string> getBluetoothDeviceListNames(BluetoothDeviceListType type);

    /// The number of records.
    unsigned int getBluetoothDeviceListSize(BluetoothDeviceListType type);

    /// A copy of the list.
    std::vector<BluetoothConnectionInfo> getBluetoothDeviceInfoList(BluetoothDeviceListType type);

    /// Appends a record. Duplicates are kept.
    void addNewDeviceToList(BluetoothDeviceListType type, BluetoothConnectionInfo info);

    /// @}
    /// @name Lookups by name: the first record whose name is equal byte for byte
    /// @{

    /// @return a copy of the record; null when there is none
    std::shared_ptr<BluetoothConnectionInfo> getDeviceInfo(BluetoothDeviceListType type,
                                                           const std::string& name);

    /// @return the address; empty when there is no such device
    std::string getDeviceMacAddress(BluetoothDeviceListType type, std::string name);

    /// @return the kind of device; MAJOR_CLASS_OTHER when there is no such device
    BluetoothMajorDeviceClassType getMajorDeviceClass(BluetoothDeviceListType type,
                                                      std::string name);

    /// The kind of device that the record's Class of Device tells.
    BluetoothMajorDeviceClassType getMajorDeviceClass(BluetoothConnectionInfo info);

    /// @return whether there is such a device
    bool searchForDevicesName(BluetoothDeviceListType type, std::string name);

    /// @return the vendor id of its modalias; 0 when there is no such device
    std::uint16_t getVendorId(BluetoothDeviceListType type, std::string name);

    /// Whether the record is an audio sink: wearable headset, hands-free unit, loudspeaker or
    /// headphones.
    bool isPlaybackDevice(const BluetoothConnectionInfo& info);

    /// For comparison with getVendorId(): 0x004C in the Bluetooth SIG's list of company
    /// identifiers.
    static const std::uint16_t appleVendorId = 0x004C;

    /// The three ids of a modalias text; all 0 when any of them is missing.
    ModaliasIds parseModalias(const std::string& modalias);

    /// GDBus's callback with BlueZ's reply for scanDevicesInfo(): fills the lists, quits the loop
    /// given as user data.
    static void bluezListDevices(GDBusConnection* connection, GAsyncResult* result,
                                 gpointer userData);

    /// @}
    /// @name Adapter and devices, through BlueZ
    /// Each blocks until BlueZ has answered or the bus's time limit has passed, and returns whether
    /// BlueZ agreed. Addresses are texts as in BluetoothConnectionInfo::macAddress, never null.
    /// @{

    /// Starts or stops discovery.
    bool adapterScan(bool start);
    /// Forgets a device: its pairing and what BlueZ knows of it.
    bool deletePairedDevice(const gchar* macAddress);
    bool pairDevice(const gchar* macAddress);
    bool connectDevice(const gchar* macAddress);
    bool disconnectDevice(const gchar* macAddress);
    /// Names /org/corvane to BlueZ as the default pairing agent that can neither show nor enter
    /// anything, or takes that back. When only the second step of registering fails, the first
    /// stays.
    bool agentRegister(bool enable);

    /// Property Powered (org.bluez.Adapter1).
    bool adapterActivate(bool on);
    /// Property Discoverable.
    bool adapterSetDiscoverable(bool on);
    /// Property DiscoverableTimeout. @param seconds  0 means without limit
    bool adapterSetDiscoverableTimeout(int seconds);
    /// Property Pairable.
    bool adapterSetPairable(bool on);
    /// Property PairableTimeout. @param seconds  0 means without limit
    bool adapterSetPairableTimeout(int seconds);
    /// Property Alias, the name that others see. @param name  UTF-8; other bytes and null are
    /// refused
    bool adapterSetName(const gchar* name);
    /// Property Trusted (org.bluez.Device1): its connections are accepted without asking the agent.
    bool deviceSetTrusted(const gchar* macAddress, bool trusted);

    /// @}
    /// @name Controller settings, through raw HCI on device 0
    /// Deliberate: each call leaves its descriptor open. That costs three descriptors for each
    /// switching on, known and counted; do not close them here. Held by
    /// RawHci.LeavesOneDescriptorOpenPerCall.
    /// @{

    /// Writes the Class of Device as it is given. Waits for the controller, 1000 ms at most for
    /// each of read and write.
    /// @return the class before; 0 on failure
    std::uint32_t adapterSetClass(std::uint32_t classOfDevice);

    /// Switches inquiry and page scan off, whatever `mode` says.
    bool adapterSetDiscoverableMode(BluetoothAdapterScanMode mode) const;

    /// Accepts connections and insists on the master role, so that the remote side cannot switch
    /// roles.
    bool preventRoleSwitch() const;

    /// @}
    /// @name Steps of switching on and off
    /// @{

    /// Takes the enable lines as outputs. @return whether every line could be taken
    bool initGPIOs();
    /// Drives the enable lines. @param forced  when lowering: the line shared with Wi-Fi too
    /// @return whether every write that was made succeeded
    bool enableGpio(bool enable, bool forced);
    /// Loads the kernel modules, unless hci0 exists already, or unloads them. May wait 5.25 s for
    /// wlan0.
    void loadModules(bool load);
    /// Starts or stops the attach program on the serial line. Blocks up to about 5 s. @return
    /// always true
    bool hciattach(bool attach);
    /// Waits for hci0 to be up and raises it where needed, about 5 s at most. @return whether it is
    /// up
    bool hciUp() const;

    /// Starts bluetoothd and waits up to 5000 ms for its bus name, or stops it. @return whether the
    /// name is there; true for a stop
    bool setBluetoothDaemon(bool on);
    /// Starts or stops the HID daemon and, except on product family 1, the audio bridge.
    void setBluetoothServices(bool on) const;
    /// The ordered bring-up or tear-down of attach, daemons, bus connection and adapter settings.
    /// @return whether every adapter setting was made; always false for a tear-down
    bool setBluetoothComponents(bool enable);

    /// @}
    /// @name System log
    /// @{

    /// Runs an action, then waits for a text among the lines that the system log /var/log/messages
    /// has gained since just before it. One call at a time: each uses the snapshot file
    /// /tmp/messages_ref.
    /// @param action   says whether there is anything to wait for; empty throws
    /// std::bad_function_call
    /// @param pattern  a basic regular expression (grep)
    /// @param timeout  milliseconds since the call, plus one poll of 250 ms at most
    /// @return whether the text was found; false also when the action returned false or the manager
    /// is going
    bool execAndWaitForSystemLog(std::function<bool()> action, std::string pattern,
                                 unsigned int timeout);

    /// @}
    /// @name Calls on BlueZ's objects: 0 on success, 1 on failure (BlueZ's message is logged)
    /// Device parts are addresses as convertMacAddressToBluezDbusFormat() returns them, never null.
    /// What the bus cannot carry (no member name, more than 255 bytes, other bytes than UTF-8)
    /// fails without being sent.
    /// @{

    /// The address with each ':' replaced by '_', as in BlueZ's object paths. Nothing else is
    /// changed or checked. Throws std::logic_error for null.
    std::string convertMacAddressToBluezDbusFormat(const char* macAddress) const;
    /// Calls a method of org.bluez.Adapter1, with the device's object path as its argument unless
    /// `devicePart` is "".
    int bluezAdapterCallMethod(const char* method, const char* devicePart);
    /// Calls a method of org.bluez.Device1, without arguments.
    int bluezDeviceCallMethod(const char* method, const char* devicePart);
    /// Calls a method of org.bluez.AgentManager1 with our agent's path and, unless it is "", the
    /// capability.
    int bluezAgentCallMethod(const char* method, const char* capability);
    /// Writes a property of the adapter. @param value  a floating reference, consumed; null counts
    /// as a value that BlueZ refuses
    int bluezAdapterSetProperty(const char* property, GVariant* value);
    /// Writes a property of a device. @param value  as above
    int bluezDeviceSetProperty(const char* devicePart, const char* property, GVariant* value);

    /// @}

private:
    BluetoothManager();
    /// Stops the services and wakes a sleeping bring-up wait.
    /// Deliberate: a requestThread that is still joinable ends the process in std::terminate(), so
    /// a host that leaves through exit() after a request is found out. Do not join or detach here.
    /// Held by ManagerLifetime.ExitAfterARequestEndsInTerminate.
    ~BluetoothManager();

    /// Lets go of controllers that are gone, so that the next one can be hci0 again.
    void releaseDeadControllers();

    // In this order: members are released from the last to the first.
    bool airplaneMode = false;
    BluetoothDeviceLists deviceLists;
    GMainLoop* mainLoop = nullptr;              // on the default context; never unreferenced
    GDBusConnection* dbusConnection = nullptr;  // null without a bus; never released altogether
    std::unique_ptr<eepromXML> eeprom;
    GPIO::GPIOManager gpioManager;
    int hardwareVariant = 0;  // row of the table of radio wirings
    std::shared_ptr<BluetoothRequest> currentRequest;
    std::thread requestThread;
    hwtools::Condition waitCondition{false};
    std::unique_ptr<sdbus::IConnection> sdbusConnection;
    std::unique_ptr<hwcommon::DBusProxy> dbusProxy;
    ModelType modelType{};
    std::vector<int> classDescriptors;  // left open by adapterSetClass(), each on its controller
};
