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
#include <condition_variable>
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
std::string adapterCall(const std::string& method, const std::string& arguments = "()");
std::string adapterSet(const std::string& property, const std::string& value);
std::string deviceCall(const std::string& address, const std::string& method);
std::string deviceSet(const std::string& address, const std::string& property,
                      const std::string& value);
std::string agentCall(const std::string& method, const std::string& arguments);

/// The answers passed to a request's callback.
class Answers {
public:
    std::function<void(BluetoothRequestAnswers)> callback();
    void note(BluetoothRequestAnswers answer);
    /// Waits for the next answer; -1 after five minutes.
    int next();
    std::size_t count();

private:
    std::mutex mutex;
    std::condition_variable changed;
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

    /// Adds a source of the host to GLib's default main context. Returns its runs, at most 1000.
    static const int& addHostsSource();

    PrivateBus bus;
    FakeBluez bluez{bus.address()};
    Answers answers;

private:
    bool made = false;
};

/// With a client of the HID service.
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
