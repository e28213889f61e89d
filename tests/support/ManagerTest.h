#pragma once

#include "BluetoothManager.h"

#include "Edges.h"
#include "Shortage.h"
#include "TestBus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

namespace corvane::test {

/// Waits, on the wall clock, until the condition holds; false after five minutes.
bool eventually(const std::function<bool()>& condition);

/// The entries of the fake's list of calls.
std::string adapterCall(const std::string& method, const std::string& arguments = "()");
std::string adapterSet(const std::string& property, const std::string& value);
std::string deviceCall(const std::string& address, const std::string& method);
std::string agentCall(const std::string& method, const std::string& arguments);

/// The answers that a request's callback gets.
class Answers {
public:
    std::function<void(BluetoothRequestAnswers)> callback();
    void note(BluetoothRequestAnswers answer);
    /// Waits for one more answer; -1 after five minutes.
    int next();
    std::size_t count();

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<BluetoothRequestAnswers> all;
    std::size_t taken = 0;
};

/// A host's source on GLib's default main context. Counts how often it is run, and goes after a
/// thousand times.
class HostsSource {
public:
    HostsSource();
    ~HostsSource();
    HostsSource(const HostsSource&) = delete;
    HostsSource& operator=(const HostsSource&) = delete;

    int runs = 0;

private:
    GSource* source;
};

/// A process with its own bus, fake services and machine, in which the one manager is made by the
/// first call of manager().
class ManagerTest : public testing::Test {
protected:
    ManagerTest();

    /// The board's identity. To be called before manager().
    void useBoard(int modelType, int productFamily);

    BluetoothManager& manager();

    /// What has happened since the manager was made or since forget(), in order.
    std::vector<std::string> happened(std::initializer_list<Kind> kinds);
    std::vector<std::string> log() { return happened({Kind::LOG}); }
    /// The messages of the ERROR records alone; asks nobody on the bus.
    static std::vector<std::string> errors();
    void forget();

    /// Starts a request; waits for the one before to be over.
    void start(std::shared_ptr<BluetoothRequest> request);

    /// The manager's device lists, filled as a scan would.
    void listDevices(const std::vector<Device>& devices);

    PrivateBus bus;
    FakeBluez bluez{bus.address()};
    Answers answers;

private:
    bool made = false;
};

/// The three wirings: 0 and 2 have an FN-link module, 1 a Laird module.
class OnWiring : public ManagerTest, public testing::WithParamInterface<int> {
protected:
    OnWiring() { useWiring(GetParam()); }
    void useWiring(int wiring) { useBoard(wiring == 1 ? 6 : 1, wiring == 2 ? 1 : 3); }
};

}  // namespace corvane::test
