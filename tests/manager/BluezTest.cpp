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
    using Run = bool (*)(BluetoothManager& manager);

    std::string name;
    Run run;
    std::string sent;
    std::string sender;  // the function that sends it and logs a failure first
    std::string detail;  // the start of that record
    std::string record;  // the second record
};

Operation call(const std::string& kind, const std::string& name, const std::string& sent,
               const std::string& aim, Operation::Run run) {
    const std::string function = "bluez" + kind + "CallMethod";
    return {name,
            run,
            sent,
            function + "(const char*, const char*)",
            function + " : ",
            "Not able to " + aim};
}

Operation adapterWrite(const std::string& property, const std::string& value, Operation::Run run,
                       const std::string& number = "") {
    return {property + number,
            run,
            adapterSet(property, value),
            "bluezAdapterSetProperty(const char*, GVariant*)",
            "bluezAdapterSetProperty " + property + " failed : ",
            "Not able to set " + property + " property" + (number.empty() ? "" : " to " + number)};
}

const std::vector<Operation> operations{
    call("Adapter", "StartDiscovery", adapterCall("StartDiscovery"), "scan for new devices",
         [](BluetoothManager& m) { return m.adapterScan(true); }),
    call("Adapter", "StopDiscovery", adapterCall("StopDiscovery"), "stop scanning",
         [](BluetoothManager& m) { return m.adapterScan(false); }),
    call("Adapter", "RemoveDevice",
         adapterCall("RemoveDevice", "(objectpath '/org/bluez/hci0/dev_00_1A_7d_DA_71_13',)"),
         "remove device", [](BluetoothManager& m) { return m.deletePairedDevice(address); }),
    call("Device", "Pair", deviceCall(address, "Pair"), "pair device",
         [](BluetoothManager& m) { return m.pairDevice(address); }),
    call("Device", "Connect", deviceCall(address, "Connect"), "connect device",
         [](BluetoothManager& m) { return m.connectDevice(address); }),
    call("Device", "Disconnect", deviceCall(address, "Disconnect"), "disconnect device",
         [](BluetoothManager& m) { return m.disconnectDevice(address); }),
    call("Agent", "UnregisterAgent", agentCall("UnregisterAgent", "(objectpath '/org/corvane',)"),
         "unregister agent", [](BluetoothManager& m) { return m.agentRegister(false); }),
    adapterWrite(
        "Powered", "true", [](BluetoothManager& m) { return m.adapterActivate(true); }, "1"),
    adapterWrite(
        "Powered", "false", [](BluetoothManager& m) { return m.adapterActivate(false); }, "0"),
    adapterWrite("Discoverable", "true",
                 [](BluetoothManager& m) { return m.adapterSetDiscoverable(true); }),
    adapterWrite("DiscoverableTimeout", "uint32 4294967295",
                 [](BluetoothManager& m) { return m.adapterSetDiscoverableTimeout(-1); }),
    adapterWrite("Pairable", "false",
                 [](BluetoothManager& m) { return m.adapterSetPairable(false); }),
    adapterWrite("PairableTimeout", "uint32 300",
                 [](BluetoothManager& m) { return m.adapterSetPairableTimeout(300); }),
    adapterWrite("Alias", "''", [](BluetoothManager& m) { return m.adapterSetName(""); }),
    {"Trusted", [](BluetoothManager& m) { return m.deviceSetTrusted(address, true); },
     trust(address), "bluezDeviceSetProperty(const char*, const char*, GVariant*)",
     "bluezDeviceSetProperty : ", "Not able to set Trusted property"}};

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
        ASSERT_THAT(log(), ElementsAre("ERROR " + operation.detail +
                                           "GDBus.Error:org.bluez.Error.Failed: why",
                                       "ERROR " + operation.record));
        EXPECT_EQ(edges().log()[0].function, "int BluetoothManager::" + operation.sender);
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
