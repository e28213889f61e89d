// What the library adds to a call: a method call and a property write on BlueZ against the same
// through GDBus alone, and a request from its start to its answer.
//
// Usage: corvane-bench-calls bus|requests

#include "BluetoothManager.h"

#include "Machine.h"
#include "Measuring.h"
#include "TestBus.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"

#include <gio/gio.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

using corvane::bench::nanoseconds;
using corvane::bench::sample;
using corvane::bench::timeOf;

namespace {

constexpr int busRounds = 5000;
constexpr int startRounds = 1000;
constexpr int cancelRounds = 100;

// As many as a household has; a wait lists them over and over.
constexpr char devices[] = "10";
constexpr char phone[] = "Phone of room 8";  // not connected

GDBusConnection* bus() {
    static GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    return connection;
}

void bareCall(const char* interface, const char* method, GVariant* arguments) {
    GVariant* const reply = g_dbus_connection_call_sync(
        bus(), "org.bluez", "/org/bluez/hci0", interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr) std::abort();
    g_variant_unref(reply);
}

void stopDiscovery() { bareCall("org.bluez.Adapter1", "StopDiscovery", nullptr); }

void measureBus() {
    BluetoothManager& manager = BluetoothManager::getInstance();
    const std::pair<const char*, std::function<void()>> ways[] = {
        {"bus/call/floor", stopDiscovery},
        {"bus/call/library", [&manager] { manager.adapterScan(false); }},
        {"bus/write/floor",
         [] {
             bareCall("org.freedesktop.DBus.Properties", "Set",
                      g_variant_new("(ssv)", "org.bluez.Adapter1", "Pairable",
                                    g_variant_new_boolean(TRUE)));
         }},
        {"bus/write/library", [&manager] { manager.adapterSetPairable(true); }},
    };
    constexpr std::size_t count = std::size(ways);
    for (int round = 0; round < busRounds; ++round) {
        for (std::size_t i = 0; i < count; ++i) {
            const auto& [name, way] = ways[(i + static_cast<std::size_t>(round)) % count];
            sample(name, timeOf(way));
        }
    }
}

/// A request that does nothing: what is left is its start.
class EmptyRequest : public BluetoothRequest {
public:
    EmptyRequest() : BluetoothRequest(nullptr) {}
    void executeRequest() override { entered.set_value(nanoseconds()); }
    void requestCancelFallback() override {}
    std::int64_t waitUntilEntered() { return entered.get_future().get(); }

private:
    std::promise<std::int64_t> entered;
};

void measureStart(BluetoothManager& manager) {
    for (int round = 0; round < startRounds; ++round) {
        const auto request = std::make_shared<EmptyRequest>();
        std::int64_t start = nanoseconds();
        manager.makeRequest(request);
        sample("requests/start/library", request->waitUntilEntered() - start);

        std::promise<std::int64_t> entered;
        start = nanoseconds();
        std::thread bare([&entered] { entered.set_value(nanoseconds()); });
        sample("requests/start/floor", entered.get_future().get() - start);
        bare.join();
    }
}

/// From the cancellation of a request that runs to its callback.
template <class Request, class... Arguments>
std::int64_t cancel(BluetoothManager& manager, Arguments... arguments) {
    std::promise<std::int64_t> answered;
    const auto request = std::make_shared<Request>(
        [&answered](BluetoothRequestAnswers /*answer*/) { answered.set_value(nanoseconds()); },
        arguments...);
    // The one before may be between its callback and its end.
    while (!manager.makeRequest(request)) std::this_thread::yield();
    while (!request->isStillRunning()) std::this_thread::yield();
    // Past its first calls, in its waiting loop; not always at the same point of it.
    std::this_thread::sleep_for(std::chrono::microseconds(20'000 + std::rand() % 2000));
    const std::int64_t start = nanoseconds();
    if (!request->isStillRunning()) std::abort();  // it was to wait
    manager.cancelRequest();
    const std::int64_t time = answered.get_future().get() - start;
    while (request->isStillRunning()) std::this_thread::yield();
    return time;
}

void measureRequests() {
    BluetoothManager& manager = BluetoothManager::getInstance();
    manager.scanDevicesInfo();
    if (manager.getMajorDeviceClass(ALL_DEVICES, phone) != MAJOR_CLASS_PHONE) std::abort();
    measureStart(manager);
    for (int round = 0; round < cancelRounds; ++round) {
        sample("requests/stop/floor", timeOf(stopDiscovery));
        sample("requests/cancel-scan/library", cancel<ScanBluetoothRequest>(manager));
        sample("requests/cancel-wait/library",
               cancel<WaitBluetoothPairingRequest>(manager, std::string(phone)));
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string part = argc == 2 ? argv[1] : "";
    if (part != "bus" && part != "requests") {
        std::fputs("usage: corvane-bench-calls bus|requests\n", stderr);
        return 2;
    }
    corvane::bench::useNoHardware();
    const corvane::test::PrivateBus privateBus;
    const corvane::test::Child bluez({CORVANE_BENCH_BLUEZ, devices});
    if (part == "bus") {
        measureBus();
    } else {
        measureRequests();
    }
    std::quick_exit(EXIT_SUCCESS);
}
