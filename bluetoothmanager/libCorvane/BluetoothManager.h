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

/// The appliance's Bluetooth radio. The process has one manager: it owns the radio's power, the
/// BlueZ stack, the lists of remote devices and the running request.
///
/// Threads: the host calls the manager from one controlling thread. Each request runs on its own
/// thread and uses the manager there. There are no locks, so the host must follow three rules:
/// calls of setEnabled() and setAirplaneMode() do not overlap; scans of the device lists do not
/// overlap, and nobody reads the lists during one; no other thread iterates GLib's default main
/// context during a scan.
///
/// Errors: operations return them and never throw, unless their documentation says so. The log has
/// the details.
///
/// Leaving the process: once a request has been started, destroying the manager ends in
/// std::terminate() (see the destructor). Shut your own parts down, then call std::quick_exit().
class CORVANE_EXPORT BluetoothManager {
public:
    /// Returns the process's only manager. The first call constructs it, which takes seconds: it
    /// reads the board identity, opens the system bus, takes the enable lines and loads the kernel
    /// modules. Concurrent first calls wait for the same construction. After an exception the next
    /// call tries again.
    /// @return the manager
    /// @throws sdbus::Error when there is no system bus
    /// @throws std::system_error when no descriptor is left
    static BluetoothManager& getInstance() {
        static BluetoothManager instance;
        return instance;
    }

    BluetoothManager(const BluetoothManager&) = delete;
    BluetoothManager& operator=(const BluetoothManager&) = delete;

    /// @name Switching on and off
    /// @{

    /// Reads the persisted setting from the flag file /tmp/bluetoothEnabled.
    /// @return the setting; false when nothing was set since the last boot
    /// @throws std::invalid_argument when the file does not hold a number
    /// @throws std::out_of_range when its number does not fit an int
    bool getEnabled() const;

    /// Switches Bluetooth on or off and persists the setting. Does nothing when the setting is
    /// unchanged. Blocks for several seconds. getEnabled() then reports the request, not its
    /// outcome; failures are only in the log.
    /// @param enable  true to switch on, false to switch off
    /// @param forced  when switching off, also lower the power line shared with Wi-Fi
    /// @throws std::invalid_argument when the flag file does not hold a number; nothing is done
    /// @throws std::out_of_range when its number does not fit an int; nothing is done
    void setEnabled(bool enable, bool forced);

    /// Enters or leaves airplane mode. Entering lowers all enable lines, including the one shared
    /// with Wi-Fi, and unloads the kernel modules; leaving reverts that. Daemons, attach program
    /// and persisted setting are not touched.
    /// @param on  true to enter, false to leave
    void setAirplaneMode(bool on);

    /// @}
    /// @name Requests
    /// @{

    /// Starts a request on its own thread and returns at once.
    /// @param request  the request; kept until the next one is started
    /// @return false when another request is running (its name is logged) or `request` is null
    /// @throws std::system_error when no thread can be created
    bool makeRequest(std::shared_ptr<BluetoothRequest> request);

    /// Asks the request started last to stop. Returns at once.
    void cancelRequest();

    /// @}
    /// @name Device lists, as of the last scan
    /// @{

    /// Refills the three lists from BlueZ. Blocks until BlueZ has answered or the bus timeout
    /// (25 s) has passed, and runs GLib's default main context meanwhile. Without an answer or a
    /// bus connection the lists are empty and the log has a record.
    /// @return always true
    bool scanDevicesInfo();

    /// Returns the list itself. The next scan changes its content.
    /// @param type  the list
    /// @return a reference to the manager's list
    std::vector<BluetoothConnectionInfo>& getBluetoothDeviceList(BluetoothDeviceListType type);

    /// Returns the names in a list.
    /// @param type  the list
    /// @return one name per record, in list order
    std::vector<std::string> getBluetoothDeviceListNames(BluetoothDeviceListType type);

    /// Counts the records of a list.
    /// @param type  the list
    /// @return the number of records
    unsigned int getBluetoothDeviceListSize(BluetoothDeviceListType type);

    /// Copies a list.
    /// @param type  the list
    /// @return the copy
    std::vector<BluetoothConnectionInfo> getBluetoothDeviceInfoList(BluetoothDeviceListType type);

    /// Appends a record to a list. Duplicates are kept.
    /// @param type  the list
    /// @param info  the record
    void addNewDeviceToList(BluetoothDeviceListType type, BluetoothConnectionInfo info);

    /// @}
    /// @name Lookups by name
    /// Each uses the first record whose name is equal byte for byte.
    /// @{

    /// Finds a device.
    /// @param type  the list to search
    /// @param name  the device's name
    /// @return a copy of the record; null when there is none
    std::shared_ptr<BluetoothConnectionInfo> getDeviceInfo(BluetoothDeviceListType type,
                                                           const std::string& name);

    /// Finds a device's address.
    /// @param type  the list to search
    /// @param name  the device's name
    /// @return the address; empty when there is no such device
    std::string getDeviceMacAddress(BluetoothDeviceListType type, std::string name);

    /// Finds out what kind of device it is.
    /// @param type  the list to search
    /// @param name  the device's name
    /// @return the kind; MAJOR_CLASS_OTHER when there is no such device
    BluetoothMajorDeviceClassType getMajorDeviceClass(BluetoothDeviceListType type,
                                                      std::string name);

    /// Reads the kind of device from the record's Class of Device.
    /// @param info  the record
    /// @return the kind
    BluetoothMajorDeviceClassType getMajorDeviceClass(BluetoothConnectionInfo info);

    /// Looks for a device.
    /// @param type  the list to search
    /// @param name  the device's name
    /// @return whether there is such a device
    bool searchForDevicesName(BluetoothDeviceListType type, std::string name);

    /// Finds a device's vendor id.
    /// @param type  the list to search
    /// @param name  the device's name
    /// @return the vendor id of its modalias; 0 when there is no such device
    std::uint16_t getVendorId(BluetoothDeviceListType type, std::string name);

    /// Checks whether a device plays audio.
    /// @param info  the record
    /// @return true for a wearable headset, hands-free unit, loudspeaker or headphones
    bool isPlaybackDevice(const BluetoothConnectionInfo& info);

    /// A company identifier to compare with getVendorId() (Bluetooth SIG, Company Identifiers).
    static const std::uint16_t appleVendorId = 0x004C;

    /// Reads the ids of a modalias.
    /// @param modalias  such as "bluetooth:v004Cp0269d0001"
    /// @return the three ids; all 0 when one is missing
    ModaliasIds parseModalias(const std::string& modalias);

    /// GDBus's callback for the reply to scanDevicesInfo(): fills the lists and quits the loop.
    /// @param connection  the connection of the call; null counts as a failed call
    /// @param result      the call's result
    /// @param userData    the GMainLoop to quit
    static void bluezListDevices(GDBusConnection* connection, GAsyncResult* result,
                                 gpointer userData);

    /// @}
    /// @name Adapter and devices, through BlueZ
    /// Each call blocks until BlueZ has answered or the bus timeout (25 s) has passed, and returns
    /// whether BlueZ agreed. Addresses have the form of BluetoothConnectionInfo::macAddress and are
    /// never null.
    /// @{

    /// Starts or stops discovery.
    /// @param start  true to start, false to stop
    /// @return whether BlueZ agreed
    bool adapterScan(bool start);
    /// Removes a device: BlueZ forgets its pairing and everything else about it.
    /// @param macAddress  the device's address
    /// @return whether BlueZ agreed
    bool deletePairedDevice(const gchar* macAddress);
    /// Pairs with a device.
    /// @param macAddress  the device's address
    /// @return whether BlueZ agreed
    bool pairDevice(const gchar* macAddress);
    /// Connects a device's profiles.
    /// @param macAddress  the device's address
    /// @return whether BlueZ agreed
    bool connectDevice(const gchar* macAddress);
    /// Disconnects a device.
    /// @param macAddress  the device's address
    /// @return whether BlueZ agreed
    bool disconnectDevice(const gchar* macAddress);
    /// Registers (or unregisters) our pairing agent, NoInputNoOutput, and makes it the default. If
    /// only the second step fails, it stays registered.
    /// @param enable  true to register, false to unregister
    /// @return whether BlueZ agreed to every step
    bool agentRegister(bool enable);

    /// Writes the property Powered of org.bluez.Adapter1.
    /// @param on  the value
    /// @return whether BlueZ agreed
    bool adapterActivate(bool on);
    /// Writes the property Discoverable of org.bluez.Adapter1.
    /// @param on  the value
    /// @return whether BlueZ agreed
    bool adapterSetDiscoverable(bool on);
    /// Writes the property DiscoverableTimeout of org.bluez.Adapter1.
    /// @param seconds  0 means no limit
    /// @return whether BlueZ agreed
    bool adapterSetDiscoverableTimeout(int seconds);
    /// Writes the property Pairable of org.bluez.Adapter1.
    /// @param on  the value
    /// @return whether BlueZ agreed
    bool adapterSetPairable(bool on);
    /// Writes the property PairableTimeout of org.bluez.Adapter1.
    /// @param seconds  0 means no limit
    /// @return whether BlueZ agreed
    bool adapterSetPairableTimeout(int seconds);
    /// Writes the property Alias of org.bluez.Adapter1, the name that other devices see.
    /// @param name  UTF-8; other bytes and null are refused
    /// @return whether BlueZ agreed
    bool adapterSetName(const gchar* name);
    /// Writes the property Trusted of org.bluez.Device1. BlueZ accepts a trusted device's
    /// connections without asking the agent.
    /// @param macAddress  the device's address
    /// @param trusted     the value
    /// @return whether BlueZ agreed
    bool deviceSetTrusted(const gchar* macAddress, bool trusted);

    /// @}
    /// @name Controller settings, through raw HCI on device 0
    /// Deliberate: each call leaves its descriptor open. That costs three descriptors per
    /// switch-on, known and counted; do not close them here. Held by
    /// RawHci.LeavesOneDescriptorOpenPerCall.
    /// @{

    /// Writes the Class of Device. Blocks up to 1000 ms each for reading and writing it.
    /// @param classOfDevice  the class, written unchanged
    /// @return the previous class; 0 on failure
    std::uint32_t adapterSetClass(std::uint32_t classOfDevice);

    /// Switches inquiry scan and page scan off.
    /// @param mode  ignored
    /// @return whether the kernel agreed
    bool adapterSetDiscoverableMode(BluetoothAdapterScanMode mode) const;

    /// Sets the link mode: accept connections and insist on the master role, so that the remote
    /// side cannot switch roles.
    /// @return whether the kernel agreed
    bool preventRoleSwitch() const;

    /// @}
    /// @name Steps of switching on and off
    /// @{

    /// Takes the enable lines as outputs.
    /// @return whether every line could be taken
    bool initGPIOs();
    /// Drives the enable lines.
    /// @param enable  true for high, false for low
    /// @param forced  when lowering, also lower the line shared with Wi-Fi
    /// @return whether every write succeeded
    bool enableGpio(bool enable, bool forced);
    /// Loads or unloads the kernel modules. Loading does nothing when hci0 exists, and may first
    /// wait up to 5.25 s for wlan0.
    /// @param load  true to load, false to unload
    void loadModules(bool load);
    /// Starts or stops the attach program on the serial line. Blocks up to about 5 s.
    /// @param attach  true to start, false to stop
    /// @return always true
    bool hciattach(bool attach);
    /// Waits until hci0 is up, and raises it when it is down. Blocks up to about 5 s.
    /// @return whether hci0 is up
    bool hciUp() const;

    /// Starts bluetoothd and waits up to 5000 ms for its bus name, or stops it.
    /// @param on  true to start, false to stop
    /// @return whether the name appeared; true for a stop
    bool setBluetoothDaemon(bool on);
    /// Starts or stops the HID daemon and, except on product family 1, the audio bridge.
    /// @param on  true to start, false to stop
    void setBluetoothServices(bool on) const;
    /// Runs the ordered bring-up or tear-down of attach program, daemons, bus connection and
    /// adapter settings.
    /// @param enable  true for bring-up, false for tear-down
    /// @return whether every adapter setting was made; always false for a tear-down
    bool setBluetoothComponents(bool enable);

    /// @}
    /// @name System log
    /// @{

    /// Runs an action, then waits for a text in the lines added to the system log
    /// /var/log/messages since just before the action. Only one call at a time: all use the
    /// snapshot file /tmp/messages_ref.
    /// @param action   returns whether to wait
    /// @param pattern  a basic regular expression (grep)
    /// @param timeout  milliseconds since the call; up to one poll of 250 ms may be added
    /// @return whether the text was found; false also when the action returned false or the manager
    /// is being destroyed
    /// @throws std::bad_function_call when `action` is empty
    bool execAndWaitForSystemLog(std::function<bool()> action, std::string pattern,
                                 unsigned int timeout);

    /// @}
    /// @name Calls on BlueZ's objects
    /// They return 0 on success and 1 on failure, with BlueZ's message in the log. Device parts are
    /// never null and come from convertMacAddressToBluezDbusFormat(). A name that is not a valid
    /// member name, is longer than 255 bytes or not UTF-8 fails without being sent.
    /// @{

    /// Replaces each ':' in an address by '_', as in BlueZ's object paths. Nothing else is changed
    /// or checked.
    /// @param macAddress  the address
    /// @return the device part of an object path
    /// @throws std::logic_error when `macAddress` is null
    std::string convertMacAddressToBluezDbusFormat(const char* macAddress) const;
    /// Calls a method of org.bluez.Adapter1.
    /// @param method      the method's name
    /// @param devicePart  the device whose object path is the argument; "" for no argument
    /// @return 0 or 1
    int bluezAdapterCallMethod(const char* method, const char* devicePart);
    /// Calls a method of org.bluez.Device1 without arguments.
    /// @param method      the method's name
    /// @param devicePart  the device
    /// @return 0 or 1
    int bluezDeviceCallMethod(const char* method, const char* devicePart);
    /// Calls a method of org.bluez.AgentManager1 with our agent's path.
    /// @param method      the method's name
    /// @param capability  the second argument; "" for none
    /// @return 0 or 1
    int bluezAgentCallMethod(const char* method, const char* capability);
    /// Writes a property of org.bluez.Adapter1.
    /// @param property  the property's name
    /// @param value     a floating reference, consumed; null fails
    /// @return 0 or 1
    int bluezAdapterSetProperty(const char* property, GVariant* value);
    /// Writes a property of org.bluez.Device1.
    /// @param devicePart  the device
    /// @param property    the property's name
    /// @param value       a floating reference, consumed; null fails
    /// @return 0 or 1
    int bluezDeviceSetProperty(const char* devicePart, const char* property, GVariant* value);

    /// @}

private:
    BluetoothManager();
    /// Stops the services and wakes a sleeping bring-up wait.
    /// Deliberate: a joinable requestThread ends the process in std::terminate(). This exposes a
    /// host that leaves through exit() after a request. Do not join or detach here. Held by
    /// ManagerLifetime.ExitAfterARequestEndsInTerminate.
    ~BluetoothManager();

    /// Releases detached controllers, so that the next one can be hci0 again.
    void releaseDeadControllers();

    // The order matters: members are destroyed from the last to the first.
    bool airplaneMode = false;
    BluetoothDeviceLists deviceLists;
    GMainLoop* mainLoop = nullptr;  // on the default context; never unreferenced
    GDBusConnection* dbusConnection =
        nullptr;  // null without a bus; one reference is never dropped
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
