#include "Edges.h"
#include "ManagerTest.h"
#include "hwcommon/DBusHardwareProxy.h"

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <stdexcept>

using namespace corvane::test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr char address[] = "AA:BB:CC:DD:EE:FF";
constexpr char refused[] = "org.bluez.Error.Failed";

/// An operation, its message, and its log records when BlueZ refuses.
struct Operation {
    const char* name;
    bool (*run)(BluetoothManager& manager);
    std::string sent;
    const char* detail;  // the record of the call or write, without level and bus message
    const char* record;
    const char* signature;  // of the function that writes the detail
    const char* success = nullptr;
};

std::string trusted(const char* value) {
    return std::string(
               "org.bluez /org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF "
               "org.freedesktop.DBus.Properties.Set ('org.bluez.Device1', 'Trusted', <") +
           value + ">)";
}

constexpr char adapterCallSignature[] =
    "int BluetoothManager::bluezAdapterCallMethod(const char*, const char*)";
constexpr char deviceCallSignature[] =
    "int BluetoothManager::bluezDeviceCallMethod(const char*, const char*)";
constexpr char agentCallSignature[] =
    "int BluetoothManager::bluezAgentCallMethod(const char*, const char*)";
constexpr char adapterSetSignature[] =
    "int BluetoothManager::bluezAdapterSetProperty(const char*, GVariant*)";
constexpr char deviceSetSignature[] =
    "int BluetoothManager::bluezDeviceSetProperty(const char*, const char*, GVariant*)";

const std::vector<Operation> calls{
    {"StartDiscovery", [](BluetoothManager& m) { return m.adapterScan(true); },
     adapterCall("StartDiscovery"), "bluezAdapterCallMethod : ", "Not able to scan for new devices",
     adapterCallSignature},
    {"StopDiscovery", [](BluetoothManager& m) { return m.adapterScan(false); },
     adapterCall("StopDiscovery"), "bluezAdapterCallMethod : ", "Not able to stop scanning",
     adapterCallSignature},
    {"RemoveDevice", [](BluetoothManager& m) { return m.deletePairedDevice(address); },
     adapterCall("RemoveDevice", "(objectpath '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF',)"),
     "bluezAdapterCallMethod : ", "Not able to remove device", adapterCallSignature},
    {"Pair", [](BluetoothManager& m) { return m.pairDevice(address); }, deviceCall(address, "Pair"),
     "bluezDeviceCallMethod : ", "Not able to pair device", deviceCallSignature},
    {"Connect", [](BluetoothManager& m) { return m.connectDevice(address); },
     deviceCall(address, "Connect"), "bluezDeviceCallMethod : ", "Not able to connect device",
     deviceCallSignature},
    {"Disconnect", [](BluetoothManager& m) { return m.disconnectDevice(address); },
     deviceCall(address, "Disconnect"), "bluezDeviceCallMethod : ", "Not able to disconnect device",
     deviceCallSignature},
    {"UnregisterAgent", [](BluetoothManager& m) { return m.agentRegister(false); },
     agentCall("UnregisterAgent", "(objectpath '/org/corvane',)"),
     "bluezAgentCallMethod : ", "Not able to unregister agent", agentCallSignature},
};

const std::vector<Operation> writes{
    {"PoweredOn", [](BluetoothManager& m) { return m.adapterActivate(true); },
     adapterSet("Powered", "true"),
     "bluezAdapterSetProperty Powered failed : ", "Not able to set Powered property to 1",
     adapterSetSignature, "Successfully set Powered property to 1"},
    {"PoweredOff", [](BluetoothManager& m) { return m.adapterActivate(false); },
     adapterSet("Powered", "false"),
     "bluezAdapterSetProperty Powered failed : ", "Not able to set Powered property to 0",
     adapterSetSignature, "Successfully set Powered property to 0"},
    {"Discoverable", [](BluetoothManager& m) { return m.adapterSetDiscoverable(true); },
     adapterSet("Discoverable", "true"), "bluezAdapterSetProperty Discoverable failed : ",
     "Not able to set Discoverable property", adapterSetSignature},
    {"DiscoverableTimeout", [](BluetoothManager& m) { return m.adapterSetDiscoverableTimeout(-1); },
     adapterSet("DiscoverableTimeout", "uint32 4294967295"),
     "bluezAdapterSetProperty DiscoverableTimeout failed : ",
     "Not able to set DiscoverableTimeout property", adapterSetSignature},
    {"Pairable", [](BluetoothManager& m) { return m.adapterSetPairable(false); },
     adapterSet("Pairable", "false"), "bluezAdapterSetProperty Pairable failed : ",
     "Not able to set Pairable property", adapterSetSignature},
    {"PairableTimeout", [](BluetoothManager& m) { return m.adapterSetPairableTimeout(300); },
     adapterSet("PairableTimeout", "uint32 300"),
     "bluezAdapterSetProperty PairableTimeout failed : ",
     "Not able to set PairableTimeout property", adapterSetSignature},
    {"Alias", [](BluetoothManager& m) { return m.adapterSetName(""); }, adapterSet("Alias", "''"),
     "bluezAdapterSetProperty Alias failed : ", "Not able to set Alias property",
     adapterSetSignature},
    {"Trusted", [](BluetoothManager& m) { return m.deviceSetTrusted(address, true); },
     trusted("true"), "bluezDeviceSetProperty : ", "Not able to set Trusted property",
     deviceSetSignature},
};

const std::vector<Operation> agentSteps{
    {"RegisterAgent", [](BluetoothManager& m) { return m.agentRegister(true); }, "",
     "bluezAgentCallMethod : ", "Not able to register agent", agentCallSignature},
    {"RequestDefaultAgent", [](BluetoothManager& m) { return m.agentRegister(true); }, "",
     "bluezAgentCallMethod : ", "Not able to request default agent", agentCallSignature}};

/// The errors that BlueZ 5.66 documents for its methods (doc/adapter-api.txt, device-api.txt,
/// agent-api.txt), after "org.bluez.Error.", and the NotAvailable of a Connect without a common
/// profile.
const std::map<std::string, std::vector<std::string>> documentedErrors{
    {"StartDiscovery", {"NotReady", "Failed", "InProgress"}},
    {"StopDiscovery", {"NotReady", "Failed", "NotAuthorized"}},
    {"RemoveDevice", {"InvalidArguments", "Failed"}},
    {"Pair",
     {"InvalidArguments", "Failed", "AlreadyExists", "AuthenticationCanceled",
      "AuthenticationFailed", "AuthenticationRejected", "AuthenticationTimeout",
      "ConnectionAttemptFailed"}},
    {"Connect", {"NotReady", "Failed", "InProgress", "AlreadyConnected", "NotAvailable"}},
    {"Disconnect", {"NotConnected"}},
    {"RegisterAgent", {"InvalidArguments", "AlreadyExists"}},
    {"RequestDefaultAgent", {"DoesNotExist"}},
    {"UnregisterAgent", {"DoesNotExist"}}};
/// BlueZ documents none for properties; its sources send these.
const std::vector<std::string> writeErrors{"Busy", "Failed", "InvalidArguments", "NotReady"};
/// The errors of any service, and of the bus on its behalf, after "org.freedesktop.DBus.Error.".
const std::vector<std::string> generalErrors{
    "UnknownObject", "UnknownMethod", "UnknownProperty", "PropertyReadOnly", "InvalidArgs",
    "AccessDenied",  "NoMemory",      "LimitsExceeded",  "Timeout"};

}  // namespace

class BluezOperation : public ManagerTest, public testing::WithParamInterface<Operation> {};

TEST_P(BluezOperation, SendsItsMessageAndLogsARefusalTwice) {
    const Operation& operation = GetParam();
    bluez.setDevices({{address, "Phone"}});
    EXPECT_TRUE(operation.run(manager()));
    EXPECT_THAT(happened({Kind::BUS}), ElementsAre(operation.sent));
    if (operation.success != nullptr) {
        EXPECT_THAT(log(), ElementsAre(std::string("DEBUG ") + operation.success));
    } else {
        EXPECT_THAT(log(), IsEmpty());
    }

    forget();
    bluez.fail("/org/bluez*", "*", refused, "Operation refused");
    EXPECT_FALSE(operation.run(manager()));
    EXPECT_EQ(happened({Kind::BUS}).size(), 1U) << "there is no retry";
    const auto records = edges().log();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].level, "ERROR");
    EXPECT_EQ(records[0].message, std::string(operation.detail) +
                                      "GDBus.Error:org.bluez.Error.Failed: Operation refused");
    EXPECT_EQ(records[0].function, operation.signature);
    EXPECT_EQ(records[0].file, "BluezCalls.cpp");
    EXPECT_EQ(records[1].level, "ERROR");
    EXPECT_EQ(records[1].message, operation.record);
}

INSTANTIATE_TEST_SUITE_P(Call, BluezOperation, testing::ValuesIn(calls),
                         [](const auto& row) { return std::string(row.param.name); });
INSTANTIATE_TEST_SUITE_P(Write, BluezOperation, testing::ValuesIn(writes),
                         [](const auto& row) { return std::string(row.param.name); });

class BusFailure : public ManagerTest, public testing::WithParamInterface<Operation> {
protected:
    const Operation& operation = GetParam();
    const std::string member =
        documentedErrors.count(operation.name) > 0 ? operation.name : "Set *";

    bool run() { return operation.run(manager()); }
    void expectFailure(const std::string& reason, const std::string& record) {
        edges().forget();
        EXPECT_FALSE(run()) << reason;
        EXPECT_THAT(errors(), ElementsAre(StartsWith(operation.detail + reason), record));
    }
};

TEST_P(BusFailure, FailsTheOperationButNoLaterOne) {
    constexpr char path[] = "/org/bluez*";
    // The record if every call fails, including the previous step.
    const std::string first =
        member == "RequestDefaultAgent" ? agentSteps[0].record : operation.record;
    const auto known = [this] { bluez.setDevices({{address, "Phone"}}); };
    known();
    manager();

    std::vector<std::string> names;
    const auto found = documentedErrors.find(member);
    for (const auto& name : found != documentedErrors.end() ? found->second : writeErrors) {
        names.push_back("org.bluez.Error." + name);
    }
    for (const auto& name : generalErrors) names.push_back("org.freedesktop.DBus.Error." + name);
    for (const auto& name : names) {
        bluez.fail(path, member, name, "why", 1);
        expectFailure("GDBus.Error:" + name + ": why", operation.record);
    }
    bluez.fail(path, member, refused, "", 1);
    expectFailure("GDBus.Error:org.bluez.Error.Failed: ", operation.record);
#ifndef __SANITIZE_ADDRESS__  // the sanitizers' own checks need descriptors
    {
        const FewDescriptors none;
        expectFailure("Too many open files", first);
    }
#endif
    bluez.reply(path, member, "('unexpected', uint32 7)", 1, std::chrono::milliseconds(200));
    EXPECT_TRUE(run()) << "a late reply of another type is not inspected";

    bluez.reply(path, member, "()", 1, FakeBluez::untilLetGo);
    bluez.forget();
    auto outcome = std::async(std::launch::async, [this] { return run(); });
    const std::string call = member == "Set *" ? ".Set (" : "." + member + " (";
    ASSERT_TRUE(eventually([&] { return bluez.countCalls(call) > 0; }));
    bluez.release("org.bluez");
    bluez.letGo();
    EXPECT_EQ(outcome.get(), member != "RegisterAgent")  // which has a second step
        << "the name disappears during the call, but the service answers";
    expectFailure("GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: ", first);
    bluez.own("org.bluez");
    EXPECT_TRUE(run());

    bluez.crash(path, member, false);
    expectFailure("GDBus.Error:org.freedesktop.DBus.Error.NoReply: ", operation.record);
    bluez.restart();
    known();
    EXPECT_TRUE(run());
}

INSTANTIATE_TEST_SUITE_P(Call, BusFailure, testing::ValuesIn(calls),
                         [](const auto& row) { return std::string(row.param.name); });
INSTANTIATE_TEST_SUITE_P(Agent, BusFailure, testing::ValuesIn(agentSteps),
                         [](const auto& row) { return std::string(row.param.name); });
INSTANTIATE_TEST_SUITE_P(Write, BusFailure, testing::ValuesIn(writes),
                         [](const auto& row) { return std::string(row.param.name); });

class PropertyWrites : public ManagerTest {};

TEST_F(PropertyWrites, LogTheWriteThenTheProperty) {
    bluez.fail("/org/bluez*", "Set *", refused, "No");
    manager().deviceSetTrusted(address, false);
    manager().adapterSetPairable(true);
    EXPECT_THAT(log(),
                ElementsAre("ERROR bluezDeviceSetProperty : GDBus.Error:org.bluez.Error.Failed: No",
                            "ERROR Not able to set Trusted property",
                            "ERROR bluezAdapterSetProperty Pairable failed : "
                            "GDBus.Error:org.bluez.Error.Failed: No",
                            "ERROR Not able to set Pairable property"));
}

class BluezCalls : public ManagerTest {};

// GDBus's default timeout is 25 s; all calls wait at the same time.
TEST_F(BluezCalls, FailAtTheBusTimeoutWithoutAReply) {
    manager();
    bluez.ignore("*", "*");
    std::vector<Operation> all = calls;
    all.insert(all.end(), writes.begin(), writes.end());
    all.insert(all.end(), agentSteps.begin(), agentSteps.begin() + 1);
    const auto start = std::chrono::steady_clock::now();
    auto identity = std::async(
        std::launch::async, [] { return hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo(); });
    std::vector<std::future<bool>> outcomes;
    for (const Operation& operation : all) {
        outcomes.push_back(std::async(std::launch::async, operation.run, std::ref(manager())));
    }
    EXPECT_TRUE(manager().scanDevicesInfo());
    for (std::size_t i = 0; i < all.size(); ++i) EXPECT_FALSE(outcomes[i].get()) << all[i].name;
    EXPECT_EQ(identity.get(), "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(24));
    EXPECT_EQ(errors().size(), 2 * all.size() + 2);
    EXPECT_THAT(errors(), Contains("Unable to get result for GetManagedObjects"));
    EXPECT_THAT(errors(), Contains("bluezDeviceCallMethod : Timeout was reached").Times(3));

    bluez.reply("*", "*", "()");
    for (const Operation& operation : all) EXPECT_TRUE(operation.run(manager())) << operation.name;
}

TEST_F(BluezCalls, ReplaceOnlyTheColonsOfAnAddress) {
    const auto part = [this](const char* text) {
        return manager().convertMacAddressToBluezDbusFormat(text);
    };
    EXPECT_EQ(part("00:1A:7d:DA:71:13"), "00_1A_7d_DA_71_13");
    EXPECT_EQ(part(""), "");
    EXPECT_EQ(part("no address"), "no address");
    EXPECT_THROW(part(nullptr), std::logic_error);
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
    EXPECT_EQ(log().size(), 12U);
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
    EXPECT_EQ(log().size(), 8U);
    EXPECT_EQ(log().back(),
              "ERROR bluezAdapterSetProperty  failed : not a valid property or value");
    EXPECT_EQ(bluez.calls().size(), 0U);

    EXPECT_EQ(manager().bluezAdapterCallMethod(std::string(255, 'x').c_str(), ""), 0)
        << "the longest name, on a connection that is still open";
}

TEST_F(BluezCalls, PassFloatingArgumentsAndFailWithoutAReply) {
    manager();
    std::vector<Operation> all = calls;
    all.insert(all.end(), writes.begin(), writes.end());
    all.insert(all.end(), agentSteps.begin(), agentSteps.begin() + 1);
    std::string owned;
    edges().onCall = [&owned](const std::string& method, GVariant* arguments) {
        if (arguments != nullptr && g_variant_is_floating(arguments) == FALSE) owned += method;
    };
    edges().noReplies = true;
    for (const Operation& operation : all) {
        edges().forget();
        EXPECT_FALSE(operation.run(manager()));
        EXPECT_THAT(errors(),
                    ElementsAre(std::string(operation.detail) + "no reply", operation.record));
    }
    EXPECT_EQ(owned, "");
}

class AgentRegister : public ManagerTest {};

TEST_F(AgentRegister, RegistersThenBecomesTheDefault) {
    EXPECT_TRUE(manager().agentRegister(true));
    EXPECT_THAT(
        happened({Kind::BUS}),
        ElementsAre(agentCall("RegisterAgent", "(objectpath '/org/corvane', 'NoInputNoOutput')"),
                    agentCall("RequestDefaultAgent", "(objectpath '/org/corvane',)")));
}

TEST_F(AgentRegister, StopsWhenItCannotRegister) {
    bluez.fail("/org/bluez", "RegisterAgent", refused, "No");
    EXPECT_FALSE(manager().agentRegister(true));
    EXPECT_EQ(happened({Kind::BUS}).size(), 1U);
    EXPECT_EQ(log().back(), "ERROR Not able to register agent");
}

TEST_F(AgentRegister, LeavesTheRegistrationWhenItCannotBeTheDefault) {
    bluez.fail("/org/bluez", "RequestDefaultAgent", refused, "No");
    EXPECT_FALSE(manager().agentRegister(true));
    EXPECT_EQ(happened({Kind::BUS}).size(), 2U) << "the registration is not undone";
    EXPECT_EQ(log().back(), "ERROR Not able to request default agent");
}
