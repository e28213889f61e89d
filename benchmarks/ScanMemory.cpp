// Tells what a scan of the device lists takes on the heap beyond BlueZ's reply: from the moment
// that the reply is there, how much the heap grows at most. Every allocation of the process is
// counted, those of GLib and of all threads too.
//
// Usage: corvane-bench-scan-memory
//   Prints a sample in bytes for each device. To be run with G_SLICE=always-malloc.

#include "BluetoothManager.h"

#include "Machine.h"
#include "Measuring.h"

#include <gio/gio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <dlfcn.h>
#include <malloc.h>

namespace {

std::atomic<std::int64_t> used{0};
std::atomic<std::int64_t> peak{0};
std::int64_t atReply = 0;

void count(std::int64_t bytes) {
    const std::int64_t now = used.fetch_add(bytes) + bytes;
    if (now > peak) peak = now;
}

void* counted(void* memory) {
    count(static_cast<std::int64_t>(malloc_usable_size(memory)));
    return memory;
}

}  // namespace

extern "C" {

// The C library's own names. NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(std::size_t size) { return counted(__libc_malloc(size)); }
void* calloc(std::size_t number, std::size_t size) { return counted(__libc_calloc(number, size)); }
void* realloc(void* memory, std::size_t size) {
    // Old and new may be there at once.
    const auto before = static_cast<std::int64_t>(malloc_usable_size(memory));
    void* const moved = counted(__libc_realloc(memory, size));
    count(-before);
    return moved;
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    *memory = counted(__libc_memalign(alignment, size));
    return 0;
}
void free(void* memory) {
    count(-static_cast<std::int64_t>(malloc_usable_size(memory)));
    __libc_free(memory);
}

GVariant* g_dbus_connection_call_finish(GDBusConnection* connection, GAsyncResult* result,
                                        GError** error) {
    static const auto next = reinterpret_cast<decltype(g_dbus_connection_call_finish)*>(
        dlsym(RTLD_NEXT, "g_dbus_connection_call_finish"));
    GVariant* const reply = next(connection, result, error);
    atReply = used;
    peak = atReply;
    return reply;
}

}  // extern "C"

int main() {
    corvane::bench::useNoHardware();
    BluetoothManager& manager = BluetoothManager::getInstance();
    manager.scanDevicesInfo();
    const std::string prefix =
        "scan/" + std::to_string(manager.getBluetoothDeviceListSize(ALL_DEVICES)) + "/library/";
    const auto devices = static_cast<std::int64_t>(manager.getBluetoothDeviceListSize(ALL_DEVICES));
    // The first scan: a later one finds the lists' space in place.
    corvane::bench::sample(prefix + "peak-bytes", (peak - atReply) / devices);
    return 0;
}
