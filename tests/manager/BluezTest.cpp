#include "ManagerTest.h"
#include "hwcommon/DBusHardwareProxy.h"

#include <future>
#include <stdexcept>

using namespace corvane::test;
using namespace testing;

namespace {

constexpr char address[] = "00:1A:7d:DA:71:13";
constexpr char refused[] = "org.bluez.Error.Failed";
constexpr char everyObject[] = "/org/bluez*";

/// An operation, its message, and what a failure leaves in the log.
struct Operation {
    const char* name;
    bool (*run)(BluetoothManager& manager);
    std::string sent;
    std::string sender;  // the function that sends it and logs a failure first, after "bluez"
    std::string record;  // the second record, after "Not able to "
};

const std::vector<Operation> operations{
    {"start of a scan", [](BluetoothManager& m) { return m.adapterScan(true); },
     adapterCall("StartDiscovery"), "AdapterCallMethod", "scan for new devices"},
    {"end of a scan", [](BluetoothManager& m) { return m.adapterScan(false); },
     adapterCall("StopDiscovery"), "AdapterCallMethod", "stop scanning"},
    {"removal", [](BluetoothManager& m) { return m.deletePairedDevice(address); },
     adapterCall("RemoveDevice", "(objectpath '/org/bluez/hci0/dev_00_1A_7d_DA_71_13',)"),
     "AdapterCallMethod", "remove device"},
    {"pairing", [](BluetoothManager& m) { return m.pairDevice(address); },
     deviceCall(address, "Pair"), "DeviceCallMethod", "pair device"},
    {"connection", [](BluetoothManager& m) { return m.connectDevice(address); },
     deviceCall(address, "Connect"), "DeviceCallMethod", "connect device"},
    {"disconnection", [](BluetoothManager& m) { return m.disconnectDevice(address); },
     deviceCall(address, "Disconnect"), "DeviceCallMethod", "disconnect device"},
    {"end of the agent", [](BluetoothManager& m) { return m.agentRegister(false); },
     agentCall("UnregisterAgent", "(objectpath '/org/corvane',)"), "AgentCallMethod",
     "unregister agent"},
    {"power on", [](BluetoothManager& m) { return m.adapterActivate(true); },
     adapterSet("Powered", "true"), "AdapterSetProperty Powered", "set Powered property to 1"},
    {"power off", [](BluetoothManager& m) { return m.adapterActivate(false); },
     adapterSet("Powered", "false"), "AdapterSetProperty Powered", "set Powered property to 0"},
    {"discoverable", [](BluetoothManager& m) { return m.adapterSetDiscoverable(true); },
     adapterSet("Discoverable", "true"), "AdapterSetProperty Discoverable",
     "set Discoverable property"},
    {"its timeout", [](BluetoothManager& m) { return m.adapterSetDiscoverableTimeout(-1); },
     adapterSet("DiscoverableTimeout", "uint32 4294967295"),
     "AdapterSetProperty DiscoverableTimeout", "set DiscoverableTimeout property"},
    {"pairable", [](BluetoothManager& m) { return m.adapterSetPairable(false); },
     adapterSet("Pairable", "false"), "AdapterSetProperty Pairable", "set Pairable property"},
    {"pairing timeout", [](BluetoothManager& m) { return m.adapterSetPairableTimeout(300); },
     adapterSet("PairableTimeout", "uint32 300"), "AdapterSetProperty PairableTimeout",
     "set PairableTimeout property"},
    {"name", [](BluetoothManager& m) { return m.adapterSetName(""); }, adapterSet("Alias", "''"),
     "AdapterSetProperty Alias", "set Alias property"},
    {"trust", [](BluetoothManager& m) { return m.deviceSetTrusted(address, true); }, trust(address),
     "DeviceSetProperty", "set Trusted property"}};

}  // namespace

class BluezOperation : public ManagerTest {};

TEST_F(BluezOperation, SendsItsMessage) {
    for (const Operation& operation : operations) {
        listDevices({{address, "Phone"}});
        EXPECT_TRUE(operation.run(manager())) << operation.name;
        EXPECT_THAT(happened({Kind::BUS}), ElementsAre(operation.sent));
        EXPECT_THAT(errors(), IsEmpty()) << operation.name;
    }
}

TEST_F(BluezOperation, LogsARefusalTwice) {
    bluez.fail(everyObject, "*", refused, "why");
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        manager();
        forget();
        EXPECT_FALSE(operation.run(manager()));
        EXPECT_THAT(happened({Kind::BUS}), SizeIs(1)) << "there is no retry";
        const auto space = operation.sender.find(' ');  // a property follows
        const std::string failed = space == std::string::npos ? " : " : " failed : ";
        ASSERT_THAT(errors(), ElementsAre("bluez" + operation.sender + failed +
                                              "GDBus.Error:org.bluez.Error.Failed: why",
                                          "Not able to " + operation.record));
        EXPECT_THAT(edges().log()[0].function, StartsWith("int BluetoothManager::bluez" +
                                                          operation.sender.substr(0, space) + "("));
        EXPECT_EQ(edges().log()[0].file, "BluezCalls.cpp");
    }
}

class BluezCalls : public ManagerTest {};

TEST_F(BluezCalls, DoNotInspectALateReply) {
    bluez.reply(everyObject, "Connect", "('unexpected', uint32 7)", 1,
                std::chrono::milliseconds(200));
    EXPECT_TRUE(manager().connectDevice(address));
}

// GDBus's default timeout is 25 s; all calls wait at the same time.
TEST_F(BluezCalls, FailAtTheBusTimeoutWithoutAReply) {
    manager();
    bluez.ignore("*", "*");
    const auto start = std::chrono::steady_clock::now();
    auto identity = std::async(
        std::launch::async, [] { return hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo(); });
    std::vector<std::pair<std::string, std::future<bool>>> outcomes;
    outcomes.reserve(operations.size());
    for (const Operation& operation : operations) {
        outcomes.emplace_back(operation.name,
                              std::async(std::launch::async, operation.run, std::ref(manager())));
    }
    EXPECT_TRUE(manager().scanDevicesInfo());
    for (auto& [name, outcome] : outcomes) EXPECT_FALSE(outcome.get()) << name;
    EXPECT_EQ(identity.get(), "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(24));
    EXPECT_THAT(errors(), SizeIs(2 * operations.size() + 2));
    EXPECT_THAT(errors(), Contains("Unable to get result for GetManagedObjects"));
    EXPECT_THAT(errors(), Contains("bluezDeviceCallMethod : Timeout was reached").Times(3));
}

TEST_F(BluezCalls, FailWithNeitherReplyNorError) {
    manager();
    edges().noReplies = true;
    EXPECT_FALSE(manager().connectDevice(address));
    EXPECT_THAT(errors(),
                ElementsAre("bluezDeviceCallMethod : no reply", "Not able to connect device"));
}

// GDBus refuses to send these with a critical warning and no error, or the bus closes the sender's
// connection.
TEST_F(BluezCalls, FailForArgumentsThatCannotBeSent) {
    EXPECT_FALSE(manager().connectDevice("no address"));
    EXPECT_FALSE(manager().deletePairedDevice("no address"));
    EXPECT_FALSE(manager().deviceSetTrusted("no address", true));
    EXPECT_FALSE(manager().adapterSetName("not \xFF UTF-8"));
    EXPECT_FALSE(manager().adapterSetName(nullptr));
    EXPECT_FALSE(manager().adapterSetName(std::string(33U << 20U, 'x').c_str()));
    EXPECT_THAT(log(), SizeIs(12));
    forget();
    const auto value = [] { return g_variant_new_boolean(TRUE); };
    EXPECT_EQ(manager().bluezAdapterCallMethod("no method", ""), 1);
    EXPECT_EQ(manager().bluezAdapterCallMethod(nullptr, ""), 1);
    EXPECT_EQ(manager().bluezDeviceCallMethod(std::string(256, 'x').c_str(), "1"), 1);
    EXPECT_EQ(manager().bluezAgentCallMethod("RegisterAgent", "\xFF"), 1);
    EXPECT_EQ(manager().bluezAdapterSetProperty("\xFF", value()), 1);
    EXPECT_EQ(manager().bluezAdapterSetProperty(std::string(256, 'x').c_str(), value()), 1);
    EXPECT_EQ(manager().bluezDeviceSetProperty("1", nullptr, value()), 1);
    EXPECT_EQ(manager().bluezAdapterSetProperty(nullptr, value()), 1);
    EXPECT_THAT(log(), SizeIs(8));
    EXPECT_EQ(log().back(),
              "ERROR bluezAdapterSetProperty  failed : not a valid property or value");
    EXPECT_THAT(bluez.calls(), IsEmpty());
    EXPECT_THROW(manager().convertMacAddressToBluezDbusFormat(nullptr), std::logic_error);

    EXPECT_EQ(manager().bluezAdapterCallMethod(std::string(255, 'x').c_str(), ""), 0)
        << "the longest name, on a connection that is still open";
}

class AgentRegister : public ManagerTest {};

TEST_F(AgentRegister, StopsWhenItCannotRegister) {
    bluez.fail("/org/bluez", "RegisterAgent", refused, "No");
    EXPECT_FALSE(manager().agentRegister(true));
    EXPECT_THAT(happened({Kind::BUS}), SizeIs(1));
    EXPECT_EQ(errors().back(), "Not able to register agent");
}

TEST_F(AgentRegister, LeavesTheRegistrationWhenItCannotBeTheDefault) {
    bluez.fail("/org/bluez", "RequestDefaultAgent", refused, "No");
    EXPECT_FALSE(manager().agentRegister(true));
    EXPECT_THAT(happened({Kind::BUS}), SizeIs(2)) << "the registration is not undone";
    EXPECT_EQ(errors().back(), "Not able to request default agent");
}
