// Tells how much memory this process has to itself, in KiB: with both connections to the bus open,
// then when GDBus has got BlueZ's devices and dropped them; or, when built with the library, with
// the manager made, then with the devices listed.
//
// Usage: corvane-bench-memory-bare | corvane-bench-memory-library [nothing]
//   nothing: ends at once, for the time that its start takes

#include <gio/gio.h>
#include <sdbus-c++/sdbus-c++.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#ifdef CORVANE_BENCH_LIBRARY
#include "BluetoothManager.h"
#endif

namespace {

/// The sum of the lines "Private_Clean: N kB" and "Private_Dirty: N kB" of the kernel's account.
long privateMemory() {
    std::ifstream account("/proc/self/smaps_rollup");
    long sum = 0;
    for (std::string line; std::getline(account, line);) {
        if (line.rfind("Private_", 0) != 0 || line.rfind("Private_Hugetlb", 0) == 0) continue;
        sum += std::strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
    return sum;
}

void tell(const char* name) {
    const long memory = privateMemory();
    std::printf("%s %ld\n", name, memory);
}

}  // namespace

int main(int argc, char** /*argv*/) {
    if (argc > 1) return EXIT_SUCCESS;
#ifdef CORVANE_BENCH_LIBRARY
    BluetoothManager& manager = BluetoothManager::getInstance();
    tell("footprint/memory/made");
    manager.scanDevicesInfo();
    if (manager.getBluetoothDeviceListSize(ALL_DEVICES) != 100) return EXIT_FAILURE;
    tell("footprint/memory/listed");
#else
    GDBusConnection* const gio = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    const auto sdbus = sdbus::createSystemBusConnection();
    if (gio == nullptr) return EXIT_FAILURE;
    tell("footprint/memory/bare");
    // As the library calls it: the reply comes through GDBus's thread and the main context.
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_dbus_connection_call(
        gio, "org.bluez", "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", nullptr,
        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            GVariant* const reply =
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
            if (reply != nullptr) g_variant_unref(reply);
            g_main_loop_quit(static_cast<GMainLoop*>(data));
        },
        loop);
    g_main_loop_run(loop);
    tell("footprint/memory/called");
#endif
    std::fflush(stdout);
    std::quick_exit(EXIT_SUCCESS);
}
