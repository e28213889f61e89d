// What the library costs beside the least that the same work can cost (the floor) and beside what a
// user would write instead. script/bench runs it.
//
// Usage: corvane-bench DEVICES [OPTION...]     options of Google Benchmark
//        corvane-bench DEVICES WAY ROUNDS      lists the devices so often, to be counted by
//        callgrind

#include "BluetoothManager.h"

#include "Edges.h"
#include "RadioWirings.h"
#include "TestBus.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/Sdbus.h"

#include <gio/gio.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr char busName[] = "org.bluez";
constexpr char managerInterface[] = "org.freedesktop.DBus.ObjectManager";
constexpr char deviceInterface[] = "org.bluez.Device1";
constexpr char phone[] = "Phone of room 8";  // not connected

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "corvane-bench: %s\n", what);
    std::quick_exit(EXIT_FAILURE);
}

BluetoothManager& manager() { return BluetoothManager::getInstance(); }

GDBusConnection* bus() {
    static GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    return connection;
}

/// What the library's record holds, and which lists would hold it.
struct Device {
    BluetoothConnectionInfo info;
    bool paired = false;
    bool connected = false;
};

void apply(Device& device, const char* name, GVariant* value) {
    if (std::strcmp(name, "Address") == 0) {
        device.info.macAddress = g_variant_get_string(value, nullptr);
    } else if (std::strcmp(name, "Name") == 0) {
        device.info.name = g_variant_get_string(value, nullptr);
    } else if (std::strcmp(name, "Modalias") == 0) {
        device.info.vendorId =
            manager().parseModalias(g_variant_get_string(value, nullptr)).vendorId;
    } else if (std::strcmp(name, "Class") == 0) {
        device.info.deviceClass = g_variant_get_uint32(value);
    } else if (std::strcmp(name, "Paired") == 0) {
        device.paired = g_variant_get_boolean(value) != FALSE;
    } else if (std::strcmp(name, "Connected") == 0) {
        device.connected = g_variant_get_boolean(value) != FALSE;
    }
}

/// The library's own call on the default main context; `count` gets the reply.
std::size_t call(std::size_t (*count)(GVariant* reply)) {
    struct Call {
        GMainLoop* loop;
        std::size_t (*count)(GVariant* reply);
        std::size_t devices;
    };
    static GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    Call pending{loop, count, 0};
    g_dbus_connection_call(
        bus(), busName, "/", managerInterface, "GetManagedObjects", nullptr,
        G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            auto* const call = static_cast<Call*>(data);
            GVariant* const reply =
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
            if (reply == nullptr) fail("no reply within 25 s: this machine is too busy");
            call->devices = call->count(reply);
            g_variant_unref(reply);
            g_main_loop_quit(call->loop);
        },
        &pending);
    g_main_loop_run(loop);
    return pending.devices;
}

std::size_t drop(GVariant* reply) {
    GVariant* const objects = g_variant_get_child_value(reply, 0);
    const gsize count = g_variant_n_children(objects) - 2;  // without BlueZ itself and the adapter
    g_variant_unref(objects);
    return count;
}

/// As GLib's manual walks such a dictionary.
std::size_t walk(GVariant* reply) {
    std::vector<Device> devices;
    GVariantIter* objects = nullptr;
    g_variant_get(reply, "(a{oa{sa{sv}}})", &objects);
    GVariantIter* interfaces = nullptr;
    while (g_variant_iter_next(objects, "{&oa{sa{sv}}}", nullptr, &interfaces) != FALSE) {
        const char* interface = nullptr;
        GVariantIter* properties = nullptr;
        while (g_variant_iter_next(interfaces, "{&sa{sv}}", &interface, &properties) != FALSE) {
            if (std::strcmp(interface, deviceInterface) == 0) {
                Device& device = devices.emplace_back();
                const char* name = nullptr;
                GVariant* value = nullptr;
                while (g_variant_iter_next(properties, "{&sv}", &name, &value) != FALSE) {
                    apply(device, name, value);
                    g_variant_unref(value);
                }
            }
            g_variant_iter_free(properties);
        }
        g_variant_iter_free(interfaces);
    }
    g_variant_iter_free(objects);
    return devices.size();
}

std::size_t library() {
    manager().scanDevicesInfo();
    return manager().getBluetoothDeviceListSize(ALL_DEVICES);
}

std::size_t objectManagerClient() {
    GDBusObjectManager* const client = g_dbus_object_manager_client_new_for_bus_sync(
        G_BUS_TYPE_SYSTEM, G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_NONE, busName, "/", nullptr, nullptr,
        nullptr, nullptr, nullptr);
    if (client == nullptr) fail("no GDBusObjectManagerClient");
    std::vector<Device> devices;
    GList* const objects = g_dbus_object_manager_get_objects(client);
    for (const GList* entry = objects; entry != nullptr; entry = entry->next) {
        GDBusInterface* const proxy =
            g_dbus_object_get_interface(G_DBUS_OBJECT(entry->data), deviceInterface);
        if (proxy == nullptr) continue;
        Device& device = devices.emplace_back();
        for (const char* name : {"Address", "Name", "Modalias", "Class", "Paired", "Connected"}) {
            GVariant* const value = g_dbus_proxy_get_cached_property(G_DBUS_PROXY(proxy), name);
            if (value == nullptr) continue;
            apply(device, name, value);
            g_variant_unref(value);
        }
        g_object_unref(proxy);
    }
    g_list_free_full(objects, g_object_unref);
    g_object_unref(client);
    return devices.size();
}

std::size_t sdbusMaps() {
    using Properties = std::map<std::string, sdbus::Variant>;
    std::map<sdbus::ObjectPath, std::map<std::string, Properties>> objects;
    static const auto proxy = sdbus::createProxy(
        sdbus::createSystemBusConnection(), hwcommon::ServiceName{busName}, sdbus::ObjectPath{"/"});
    proxy->callMethod("GetManagedObjects").onInterface(managerInterface).storeResultsTo(objects);
    std::vector<Device> devices;
    for (const auto& [path, interfaces] : objects) {
        const auto found = interfaces.find(deviceInterface);
        if (found == interfaces.end()) continue;
        Device& device = devices.emplace_back();
        const auto get = [&properties = found->second](const char* name, auto& field) {
            const auto property = properties.find(name);
            if (property == properties.end()) return;
            field = property->second.get<std::remove_reference_t<decltype(field)>>();
        };
        std::string modalias;
        get("Address", device.info.macAddress);
        get("Name", device.info.name);
        get("Class", device.info.deviceClass);
        get("Paired", device.paired);
        get("Connected", device.connected);
        get("Modalias", modalias);
        device.info.vendorId = manager().parseModalias(modalias).vendorId;
    }
    return devices.size();
}

const std::map<std::string, std::size_t (*)()> ways{
    {"floor", [] { return call(drop); }},
    {"library", library},
    {"object-manager-client", objectManagerClient},
    {"sdbus-maps", sdbusMaps},
    {"walk", [] { return call(walk); }},
};

void bareCall(const char* interface, const char* method, GVariant* arguments) {
    GVariant* const reply =
        g_dbus_connection_call_sync(bus(), busName, "/org/bluez/hci0", interface, method, arguments,
                                    nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr) fail("no reply within 25 s: this machine is too busy");
    g_variant_unref(reply);
}

void stopDiscovery() { bareCall("org.bluez.Adapter1", "StopDiscovery", nullptr); }

void setPairable() {
    bareCall("org.freedesktop.DBus.Properties", "Set",
             g_variant_new("(ssv)", "org.bluez.Adapter1", "Pairable", g_variant_new_boolean(TRUE)));
}

/// A request that does nothing: what is left is its start.
class EmptyRequest : public BluetoothRequest {
public:
    explicit EmptyRequest(std::promise<Clock::time_point>& time)
        : BluetoothRequest(nullptr), entered(time) {}
    void executeRequest() override { entered.set_value(Clock::now()); }
    void requestCancelFallback() override {}

private:
    std::promise<Clock::time_point>& entered;
};

/// Starts what `begin` starts, until it has begun.
template <class Begin>
void start(benchmark::State& state, const Begin& begin) {
    for ([[maybe_unused]] auto round : state) {
        std::promise<Clock::time_point> entered;
        const auto before = Clock::now();
        const auto finish = begin(entered);
        state.SetIterationTime(Seconds(entered.get_future().get() - before).count());
        finish();
    }
}

auto startRequest(std::promise<Clock::time_point>& entered) {
    const auto request = std::make_shared<EmptyRequest>(entered);
    if (!manager().makeRequest(request)) fail("a request was refused");
    return [request] {
        while (request->isStillRunning()) std::this_thread::yield();
    };
}

auto startThread(std::promise<Clock::time_point>& entered) {
    const auto thread =
        std::make_shared<std::thread>([&entered] { entered.set_value(Clock::now()); });
    return [thread] { thread->join(); };
}

/// From the cancellation of a waiting request to its callback.
template <class Request, class... Arguments>
void cancel(benchmark::State& state, Arguments... arguments) {
    manager().scanDevicesInfo();
    for ([[maybe_unused]] auto round : state) {
        std::promise<Clock::time_point> answered;
        const auto request = std::make_shared<Request>(
            [&answered](BluetoothRequestAnswers /*answer*/) { answered.set_value(Clock::now()); },
            arguments...);
        // The previous one may be between its callback and its end.
        while (!manager().makeRequest(request)) std::this_thread::yield();
        while (!request->isStillRunning()) std::this_thread::yield();
        // Past its first calls, at a random point of its waiting loop.
        std::this_thread::sleep_for(std::chrono::microseconds(20'000 + std::rand() % 2000));
        if (!request->isStillRunning()) fail("a request ended before it was cancelled");
        const auto before = Clock::now();
        manager().cancelRequest();
        state.SetIterationTime(Seconds(answered.get_future().get() - before).count());
        while (request->isStillRunning()) std::this_thread::yield();
    }
}

void check(std::size_t listed, std::size_t expected) {
    if (listed != expected) fail("not all devices were listed; this machine may be too busy");
}

template <class Action>
auto repeat(const Action& action) {
    return [action](benchmark::State& state) {
        for ([[maybe_unused]] auto round : state) action();
    };
}

void registerAll(const std::string& devices) {
    using benchmark::RegisterBenchmark;
    const std::size_t expected = std::stoul(devices);
    for (const auto& [name, list] : ways) {
        RegisterBenchmark(("scan/" + devices + '/' + name).c_str(),
                          repeat([list = list, expected] { check(list(), expected); }))
            ->UseRealTime();
    }
    const std::pair<const char*, void (*)()> calls[] = {
        {"bus/call/floor", stopDiscovery},
        {"bus/call/library", [] { manager().adapterScan(false); }},
        {"bus/write/floor", setPairable},
        {"bus/write/library", [] { manager().adapterSetPairable(true); }}};
    for (const auto& [name, action] : calls) RegisterBenchmark(name, repeat(action))->UseRealTime();
    RegisterBenchmark("requests/start/library", [](auto& state) {
        start(state, startRequest);
    })->UseManualTime();
    RegisterBenchmark("requests/start/floor", [](auto& state) {
        start(state, startThread);
    })->UseManualTime();
    constexpr int cancellations = 20;
    RegisterBenchmark("requests/cancel-scan/library", cancel<ScanBluetoothRequest>)
        ->Iterations(cancellations)
        ->UseManualTime();
    RegisterBenchmark(
        "requests/cancel-wait/library",
        [](auto& state) { cancel<WaitBluetoothPairingRequest>(state, std::string(phone)); })
        ->Iterations(cancellations)
        ->UseManualTime();
}

int run(int argc, char** argv) {
    const std::string devices = argc > 1 ? argv[1] : "";
    if (devices.empty() || devices.find_first_not_of("0123456789") != std::string::npos) {
        std::fputs("usage: corvane-bench DEVICES [WAY ROUNDS | OPTION...]\n", stderr);
        return 2;
    }
    // No command of the library runs, and it touches nothing of this machine.
    corvane::test::edges().paths = {corvane::hciDevice};
    corvane::test::edges().asksTheBus = true;
    corvane::test::edges().sleeps = true;
    // Static to outlive the threads that use the bus.
    static const corvane::test::PrivateBus privateBus;
    static const corvane::test::Child bluez({CORVANE_BENCH_BLUEZ, devices});
    manager();
    if (argc == 4 && ways.count(argv[2]) > 0) {
        for (int rounds = std::atoi(argv[3]); rounds > 0; --rounds) {
            check(ways.at(argv[2])(), std::stoul(devices));
        }
        // By then GDBus's thread has freed the last reply: it handles one message after the other.
        stopDiscovery();
        return EXIT_SUCCESS;
    }
    --argc;
    benchmark::Initialize(&argc, argv + 1);
    registerAll(devices);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    // After a request the manager's destruction would end in std::terminate().
    std::quick_exit(run(argc, argv));
}
