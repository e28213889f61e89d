#include "HostileTexts.h"
#include "ManagerTest.h"

#include <functional>
#include <sstream>
#include <thread>
#include <tuple>

using namespace corvane::test;
using namespace testing;

/// The value that a C++14 host sees, see Cxx14Host.cpp.
const std::uint16_t& vendorIdInCxx14();

namespace {

constexpr char address[] = "AA:BB:CC:DD:EE:FF";

BluetoothConnectionInfo record(const char* name, std::uint32_t deviceClass = 0) {
    BluetoothConnectionInfo info;
    info.macAddress = address;
    info.name = name;
    info.deviceClass = deviceClass;
    return info;
}

BluetoothDeviceListType listType(int number) {
    return static_cast<BluetoothDeviceListType>(number);
}

}  // namespace

class DeviceScan : public ManagerTest {
protected:
    /// Makes BlueZ report one object with these interfaces, in GVariant text form.
    void report(const std::string& interfaces) {
        bluez.reply("/", "GetManagedObjects",
                    "({@o '/org/bluez/hci0/dev_1': @a{sa{sv}} " + interfaces + "},)");
    }

    std::vector<BluetoothConnectionInfo> scan() {
        EXPECT_TRUE(manager().scanDevicesInfo());
        return manager().getBluetoothDeviceInfoList(ALL_DEVICES);
    }
};

TEST_F(DeviceScan, FillsTheThreeListsInBluezsOrder) {
    bluez.setDevices(
        {{"00:00:00:00:00:03", "Phone", 0x5A020C, true, true, "bluetooth:v004Cp0269d0001"},
         {"00:00:00:00:00:01", "Speaker", 0x240414, true, false},
         {"00:00:00:00:00:02", "Tag", 0, false, true}});
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_THAT(manager().getBluetoothDeviceListNames(ALL_DEVICES),
                ElementsAre("Phone", "Speaker", "Tag"));
    EXPECT_THAT(manager().getBluetoothDeviceListNames(PAIRED_DEVICES),
                ElementsAre("Phone", "Speaker"));
    EXPECT_THAT(manager().getBluetoothDeviceListNames(CONNECTED_DEVICES),
                ElementsAre("Phone", "Tag"));
    for (const auto type : {ALL_DEVICES, PAIRED_DEVICES, CONNECTED_DEVICES}) {
        const auto phone = manager().getBluetoothDeviceInfoList(type).front();
        EXPECT_EQ(phone.macAddress, "00:00:00:00:00:03");
        EXPECT_EQ(phone.deviceClass, 0x5A020CU);
        EXPECT_EQ(phone.vendorId, vendorIdInCxx14());
        EXPECT_EQ(phone.productId, 0x0269);
        EXPECT_EQ(phone.versionId, 1);
    }
    EXPECT_THAT(happened({Kind::BUS}),
                ElementsAre("org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects ()"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(DeviceScan, TakesThePropertiesOfTheirTypeAndDefaultsForOthers) {
    const std::vector<std::pair<std::string, std::string>> rows{
        {"@a{sv} {}", "||0 0/0/0"},
        // the address replaces an empty name, the alias does not
        {"{'Address': <'A'>, 'Name': <''>, 'Alias': <'Other'>}", "A|A|0 0/0/0"},
        {"{'Address': <objectpath '/a'>, 'Name': <b'bytes'>, 'Class': <int32 5898764>, "
         "'Paired': <'true'>, 'Connected': <byte 1>, 'Modalias': <['usb:v0001p0002d0003']>, "
         "'address': <'lower case'>, 'RSSI': <int16 -40>}",
         "||0 0/0/0"},
        // the later of two wins
        {"{'Address': <'A'>, 'Name': <'first'>, 'Paired': <true>, 'Class': <uint32 1>, "
         "'Name': <'second'>, 'Paired': <false>, 'Class': <uint32 2>, "
         "'Modalias': <'usb:v0001p0002d0003'>, 'Modalias': <'rubbish'>}",
         "A|second|2 0/0/0"}};
    for (const auto& [properties, expected] : rows) {
        SCOPED_TRACE(properties);
        report("{'org.bluez.Device1': " + properties + "}");
        const auto all = scan();
        ASSERT_EQ(all.size(), 1U);
        std::ostringstream read;
        read << all[0].macAddress << '|' << all[0].name << '|' << all[0].deviceClass << ' '
             << all[0].vendorId << '/' << all[0].productId << '/' << all[0].versionId;
        EXPECT_EQ(read.str(), expected);
        EXPECT_EQ(manager().getBluetoothDeviceListSize(PAIRED_DEVICES), 0U);
        EXPECT_EQ(manager().getBluetoothDeviceListSize(CONNECTED_DEVICES), 0U);
    }
}

TEST_F(DeviceScan, EveryInterfaceWithDeviceInItsNameYieldsARecord) {
    report(
        "{'org.bluez.Device1': {'Name': <'one'>, 'Paired': <true>}, "
        "'org.bluez.DEVICESet1': @a{sv} {}, "
        "'com.example.mydevices': {'Name': <'three'>}, "
        "'org.bluez.Battery1': {'Name': <'none'>}, 'org.bluez.Devic': {'Name': <'none'>}}");
    manager().scanDevicesInfo();
    EXPECT_THAT(manager().getBluetoothDeviceListNames(ALL_DEVICES),
                ElementsAre("one", "", "three"));
    EXPECT_THAT(manager().getBluetoothDeviceListNames(PAIRED_DEVICES), ElementsAre("one"))
        << "the next record starts empty";
}

TEST_F(DeviceScan, KeepsHostileNamesByteForByte) {
    std::vector<std::string> hostile;
    std::vector<Device> devices;
    for (const auto& [file, text] : hostileTexts("names")) {
        // The bus lets nothing else through.
        if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
            continue;
        }
        hostile.push_back(text);
        devices.push_back({"00:00:00:00:00:" + std::to_string(10 + devices.size()), text});
    }
    ASSERT_GT(hostile.size(), 30U);
    bluez.setDevices(devices);
    manager().scanDevicesInfo();
    EXPECT_EQ(manager().getBluetoothDeviceListNames(ALL_DEVICES), hostile);
    for (const Device& device : devices) {
        EXPECT_EQ(manager().getDeviceMacAddress(ALL_DEVICES, device.name), device.address);
    }
    EXPECT_THAT(happened({Kind::SHELL}), IsEmpty());
}

TEST_F(DeviceScan, EmptiesThenFillsTheListsInOrder) {
    bluez.setDevices({{address, "Phone", 0, true, true}});
    manager();
    std::vector<int> used;
    edges().listsUsed = &used;
    manager().scanDevicesInfo();
    edges().listsUsed = nullptr;
    EXPECT_THAT(used, ElementsAre(0, 1, 2, 0, 1, 2)) << "emptied, then the device appended";
}

TEST_F(DeviceScan, FailsCleanlyWhenTheConnectionIsAnotherObject) {
    manager();
    edges().standIn = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    EXPECT_TRUE(manager().scanDevicesInfo());
    EXPECT_THAT(log(), ElementsAre("ERROR Unable to get result for GetManagedObjects"));
    g_object_unref(edges().standIn);
}

TEST_F(DeviceScan, EmptiesTheListsAndLogsOnceWhenTheCallFails) {
    const std::function<void()> failures[]{
        [this] { bluez.fail("/", "GetManagedObjects", "org.bluez.Error.Failed", "No", 1); },
        [this] { bluez.reply("/", "GetManagedObjects", "('no objects',)", 1); },
        [this] { bluez.release("org.bluez"); }};
    for (const auto& failure : failures) {
        listDevices({{address, "Phone", 0, true, true}});
        failure();
        EXPECT_TRUE(manager().scanDevicesInfo());
        for (const auto type : {ALL_DEVICES, PAIRED_DEVICES, CONNECTED_DEVICES}) {
            EXPECT_EQ(manager().getBluetoothDeviceListSize(type), 0U);
        }
        ASSERT_THAT(log(), ElementsAre("ERROR Unable to get result for GetManagedObjects"));
        EXPECT_EQ(edges().log()[0].function,
                  "static void BluetoothManager::bluezListDevices(GDBusConnection*, GAsyncResult*, "
                  "gpointer)");
    }
}

TEST_F(DeviceScan, WorksOnAThreadWithItsOwnMainContext) {
    bluez.setDevices({{address, "Phone"}});
    manager();
    std::thread([this] {
        GMainContext* const own = g_main_context_new();
        g_main_context_push_thread_default(own);
        EXPECT_EQ(scan().size(), 1U);
        EXPECT_EQ(g_main_context_get_thread_default(), own);
        g_main_context_pop_thread_default(own);
        g_main_context_unref(own);
    }).join();
}

class Modalias : public ManagerTest {};

TEST_F(Modalias, GivesAllThreeIdsOrNone) {
    const struct {
        const char* name;
        std::string text;
        unsigned vendor, product, version;
    } rows[]{{"Empty", "", 0, 0, 0},
             {"Bluetooth", "bluetooth:v004Cp0269d0001", 0x4C, 0x269, 1},
             {"LowerCaseDigits", "usb:v1d6bp0246dfffF", 0x1D6B, 0x246, 0xFFFF},
             {"FewDigits", "usb:v1p0002d3", 1, 2, 3},
             {"TheVersionsLetterIsADigitToo", "usb:v1p2d3", 0, 0, 0},
             {"MoreBehind", "usb:v0001p0002d00034dc00", 1, 2, 3},
             {"FiveDigits", "usb:v00012p0002d0003", 0, 0, 0},
             {"VendorOnly", "bluetooth:v004C", 0, 0, 0},
             {"NoVersion", "bluetooth:v004Cp0269d", 0, 0, 0},
             {"NoPrefix", ":v004Cp0269d0001", 0, 0, 0},
             {"UpperCasePrefix", "USB:v004Cp0269d0001", 0, 0, 0},
             {"Long", std::string(100000, 'a'), 0, 0, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const ModaliasIds ids = manager().parseModalias(row.text);
        EXPECT_EQ(ids.vendorId, row.vendor);
        EXPECT_EQ(ids.productId, row.product);
        EXPECT_EQ(ids.versionId, row.version);
    }
}

class DeviceLists : public ManagerTest {};

TEST_F(DeviceLists, EveryNumberSelectsAList) {
    manager().addNewDeviceToList(listType(7), record("all"));
    manager().addNewDeviceToList(listType(1), record("paired"));
    manager().addNewDeviceToList(listType(2), record("connected"));
    manager().addNewDeviceToList(listType(-1), record("all"));
    EXPECT_THAT(manager().getBluetoothDeviceListNames(ALL_DEVICES), ElementsAre("all", "all"))
        << "the same record twice makes two entries";
    EXPECT_THAT(manager().getBluetoothDeviceListNames(PAIRED_DEVICES), ElementsAre("paired"));
    EXPECT_THAT(manager().getBluetoothDeviceListNames(CONNECTED_DEVICES), ElementsAre("connected"));
    EXPECT_EQ(&manager().getBluetoothDeviceList(listType(99)),
              &manager().getBluetoothDeviceList(ALL_DEVICES));
}

class Lookups : public ManagerTest {};

TEST_F(Lookups, UseTheFirstRecordWithExactlyThatName) {
    listDevices({{"00:00:00:00:00:01", "speaker", 0x000540, true},
                 {"00:00:00:00:00:02", "Speaker", 0x240414, false, true, "usb:v004Cp0001d0001"},
                 {"00:00:00:00:00:03", "Speaker", 0x5A020C, true},
                 {"00:00:00:00:00:04", "Speaker "},
                 {"00:00:00:00:00:05", "My Speaker"}});
    EXPECT_EQ(manager().getDeviceMacAddress(ALL_DEVICES, "Speaker"), "00:00:00:00:00:02");
    EXPECT_EQ(manager().getDeviceMacAddress(PAIRED_DEVICES, "Speaker"), "00:00:00:00:00:03");
    EXPECT_EQ(manager().getMajorDeviceClass(ALL_DEVICES, "Speaker"), MAJOR_CLASS_AUDIO_VIDEO);
    EXPECT_TRUE(manager().searchForDevicesName(ALL_DEVICES, "Speaker "));
    EXPECT_EQ(manager().getVendorId(ALL_DEVICES, "Speaker"), vendorIdInCxx14());
    const auto info = manager().getDeviceInfo(CONNECTED_DEVICES, "Speaker");
    ASSERT_TRUE(info);
    manager().scanDevicesInfo();
    EXPECT_EQ(info->macAddress, "00:00:00:00:00:02") << "a copy outlives the next scan";
}

TEST_F(Lookups, LogThenReturnNeutralValuesForAnUnknownName) {
    listDevices({{"00:00:00:00:00:01", "Speaker", 0x240414}});
    for (const char* name : {"", "speaker", "Speake"}) {
        forget();
        EXPECT_EQ(manager().getDeviceMacAddress(ALL_DEVICES, name), "");
        EXPECT_EQ(manager().getMajorDeviceClass(ALL_DEVICES, name), MAJOR_CLASS_OTHER);
        EXPECT_FALSE(manager().searchForDevicesName(ALL_DEVICES, name));
        EXPECT_EQ(manager().getVendorId(ALL_DEVICES, name), 0);
        EXPECT_FALSE(manager().getDeviceInfo(ALL_DEVICES, name));
        const std::string record = std::string("TRACE Searching for ") + name;
        EXPECT_THAT(log(), ElementsAre(record + " MAC address", record + " class", record + "..."));
        EXPECT_EQ(edges().log()[0].function,
                  "std::string BluetoothManager::getDeviceMacAddress(BluetoothDeviceListType, "
                  "std::string)");
    }
}

class MajorClass : public ManagerTest {};

TEST_F(MajorClass, IsReadFromBits8To12) {
    const std::tuple<const char*, std::uint32_t, BluetoothMajorDeviceClassType> rows[]{
        {"Miscellaneous", 0x000000, MAJOR_CLASS_OTHER},
        {"Computer", 0x000100, MAJOR_CLASS_COMPUTER},
        {"Phone", 0x5A020C, MAJOR_CLASS_PHONE},
        {"AccessPoint", 0x000300, MAJOR_CLASS_OTHER},
        {"Headset", 0x240404, MAJOR_CLASS_AUDIO_VIDEO},
        {"Keyboard", 0x000540, MAJOR_CLASS_OTHER},
        {"Uncategorized", 0x001F00, MAJOR_CLASS_OTHER},
        {"AllOtherBits", 0xFFFFE4FF, MAJOR_CLASS_AUDIO_VIDEO}};
    for (const auto& [name, deviceClass, expected] : rows) {
        EXPECT_EQ(manager().getMajorDeviceClass(record(name, deviceClass)), expected) << name;
    }
}

class IsPlaybackDevice : public ManagerTest {};

TEST_F(IsPlaybackDevice, AcceptsHeadsetHandsFreeLoudspeakerAndHeadphones) {
    for (std::uint32_t minor = 0; minor < 32; ++minor) {
        const bool expected = minor == 1 || minor == 2 || minor == 5 || minor == 6;
        EXPECT_EQ(manager().isPlaybackDevice(record("x", 0x200400 | (minor << 2))), expected)
            << minor;
    }
    forget();
    EXPECT_FALSE(manager().isPlaybackDevice(record("Phone", 0x5A0204)));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(IsPlaybackDevice, IgnoresBit7) {
    EXPECT_TRUE(manager().isPlaybackDevice(record("Headset", 0x240484)));
    EXPECT_FALSE(manager().isPlaybackDevice(record("Car", 0x2004A0)));
    const std::string signature =
        "DEBUG bool BluetoothManager::isPlaybackDevice(const BluetoothConnectionInfo&)";
    EXPECT_THAT(log(), ElementsAre(signature + " minor device class of Headset : 1",
                                   signature + "Headset is a playback device",
                                   signature + " minor device class of Car : 8"));
}
