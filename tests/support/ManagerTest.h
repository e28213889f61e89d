#pragma once

#include "BluetoothManager.h"

#include "Edges.h"
#include "Shortage.h"
#include "TestBus.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace corvane::test {

/// Waits on the wall clock until the condition holds; false after five minutes.
bool eventually(const std::function<bool()>& condition);

/// Entries of the fake's list of calls.
inline std::string adapterCall(const std::string& method, const std::string& arguments = "()") {
    return "org.bluez /org/bluez/hci0 org.bluez.Adapter1." + method + " " + arguments;
}
inline std::string deviceCall(const std::string& address, const std::string& method) {
    return "org.bluez " + Device{address, ""}.path() + " org.bluez.Device1." + method + " ()";
}
inline std::string agentCall(const std::string& method, const std::string& arguments) {
    return "org.bluez /org/bluez org.bluez.AgentManager1." + method + " " + arguments;
}
inline std::string adapterSet(const std::string& property, const std::string& value) {
    return "org.bluez /org/bluez/hci0 org.freedesktop.DBus.Properties.Set ('org.bluez.Adapter1', "
           "'" +
           property + "', <" + value + ">)";
}
inline std::string trust(const std::string& address) {
    return "org.bluez " + Device{address, ""}.path() +
           " org.freedesktop.DBus.Properties.Set ('org.bluez.Device1', 'Trusted', <true>)";
}

/// The answers passed to a request's callback.
class Answers {
public:
    std::function<void(BluetoothRequestAnswers)> callback() {
        return [this](BluetoothRequestAnswers answer) { note(answer); };
    }
    void note(BluetoothRequestAnswers answer) {
        const std::lock_guard lock(mutex);
        all.push_back(answer);
    }
    std::size_t count() {
        const std::lock_guard lock(mutex);
        return all.size();
    }
    /// Waits for the next answer; -1 after five minutes.
    int next() {
        if (!eventually([this] { return count() > taken; })) return -1;
        const std::lock_guard lock(mutex);
        return all[taken++];
    }

private:
    std::mutex mutex;
    std::vector<BluetoothRequestAnswers> all;
    std::size_t taken = 0;
};

/// A process with its own bus, fake services and machine. The first call of manager() creates the
/// one manager.
class ManagerTest : public testing::Test {
protected:
    ManagerTest();

    /// Sets the board's identity. Call it before manager().
    void useBoard(int modelType, int productFamily);

    BluetoothManager& manager();

    /// The events since the manager's construction or forget(), in order.
    std::vector<std::string> happened(std::initializer_list<Kind> kinds);
    std::vector<std::string> log() { return happened({Kind::LOG}); }
    /// The messages of the ERROR records only; asks nobody on the bus.
    static std::vector<std::string> errors();
    void forget();

    /// Starts a request after the previous one has ended.
    void start(std::shared_ptr<BluetoothRequest> request);

    /// Fills the manager's device lists as a scan would.
    void listDevices(const std::vector<Device>& devices);

    /// Adds a source to GLib's default main context, as a host does.
    /// @return how often it has run, at most 1000
    static const int& addHostsSource();

    PrivateBus bus;
    FakeBluez bluez{bus.address()};
    Answers answers;

private:
    bool made = false;
};

/// Tests of requests that need the host's client of the HID service.
class WithHidService : public ManagerTest {
protected:
    std::unique_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    hwcommon::DBusBluetoothHidProxy hid{*connection};
};

/// The three wirings: 0 and 2 have an FN-link module, 1 a Laird module.
class OnWiring : public ManagerTest, public testing::WithParamInterface<int> {
protected:
    OnWiring() { useWiring(GetParam()); }
    void useWiring(int wiring) { useBoard(wiring == 1 ? 6 : 1, wiring == 2 ? 1 : 3); }
};

}  // namespace corvane::test
