// Prints the private memory of this process in KiB: with both connections to the bus open, then
// after GDBus has fetched BlueZ's devices and dropped them; or, built with the library, with the
// manager made, then with the devices listed.

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
void print(const char* name) {
    std::ifstream account("/proc/self/smaps_rollup");
    long sum = 0;
    for (std::string line; std::getline(account, line);) {
        if (line.rfind("Private_", 0) != 0 || line.rfind("Private_Hugetlb", 0) == 0) continue;
        sum += std::strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
    std::printf("memory/%s %ld\n", name, sum);
}

}  // namespace

int main() {
#ifdef CORVANE_BENCH_LIBRARY
    BluetoothManager& manager = BluetoothManager::getInstance();
    print("made");
    manager.scanDevicesInfo();
    if (manager.getBluetoothDeviceListSize(ALL_DEVICES) != 100) return EXIT_FAILURE;
    print("listed");
#else
    GDBusConnection* const gio = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    const auto sdbus = sdbus::createSystemBusConnection();
    if (gio == nullptr) return EXIT_FAILURE;
    print("bare");
    GVariant* const reply = g_dbus_connection_call_sync(
        gio, "org.bluez", "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", nullptr,
        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr) return EXIT_FAILURE;
    g_variant_unref(reply);
    print("called");
#endif
    std::fflush(stdout);
    std::quick_exit(EXIT_SUCCESS);
}
