#include "SystemBus.h"

#include "Handles.h"
#include "SystemCalls.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>
#include <vector>

#include <sys/eventfd.h>

namespace corvane {

namespace {

/// A connection that we have used. One reference is never dropped, because a request may still be
/// in a call on it. The cost is one closed connection, without its socket, per restart of the bus.
struct Kept {
    GDBusConnection* connection;
    unsigned references;  // held by bring-ups
};

std::vector<Kept>& keptConnections() {
    static std::vector<Kept> connections;
    return connections;
}

Kept& keep(GDBusConnection* connection) {
    auto& all = keptConnections();
    const auto known = std::find_if(all.begin(), all.end(), [connection](const Kept& kept) {
        return kept.connection == connection;
    });
    if (known != all.end()) return *known;
    // By default GDBus ends the process when the bus goes away; we want failing calls instead.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    g_object_ref(connection);
    all.push_back({connection, 0});
    return all.back();
}

bool isOpen(GDBusConnection* connection) {
    return g_dbus_connection_is_closed(connection) == FALSE;
}

/// Returns the kept connection that is still open, or null. GDBus leaves the sockets of closed
/// connections open; this closes them.
GDBusConnection* openConnection() {
    GDBusConnection* open = nullptr;
    for (const Kept& kept : keptConnections()) {
        if (isOpen(kept.connection)) {
            open = kept.connection;
        } else {
            g_io_stream_close(g_dbus_connection_get_stream(kept.connection), nullptr, nullptr);
        }
    }
    return open;
}

GDBusConnection* connectAnew() {
    const TextPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!address) return nullptr;
    constexpr auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    return g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr, nullptr, nullptr);
}

/// @return a connection with a reference for the caller, or null
GDBusConnection* connect() {
    constexpr unsigned neededDescriptors = 3;  // socket, GDBus's thread, the Hello call
    const StandardStreamsReserved reserved;
    if (lackOfDescriptors(neededDescriptors) != 0) return nullptr;
    try {
        // The first connection starts GDBus's thread; GLib aborts if it cannot.
        std::thread([] {}).join();
    } catch (const std::system_error&) {
        return nullptr;
    }
    GDBusConnection* const shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (shared == nullptr || isOpen(shared)) return shared;
    // GIO returns its closed connection as long as anybody holds it, and we do.
    g_object_unref(shared);
    GDBusConnection* const open = openConnection();
    if (open == nullptr) return connectAnew();
    g_object_ref(open);
    return open;
}

}  // namespace

// GLib needs an eventfd too. Duplicating one of the host's descriptors instead would drop the
// host's record locks on that file when the duplicate is closed.
int lackOfDescriptors(unsigned wanted) {
    if (wanted == 0) return 0;
    const Descriptor probe(eventfd(0, EFD_CLOEXEC));
    return probe.get() < 0 ? errno : lackOfDescriptors(wanted - 1);
}

GDBusConnection* openSystemBus() {
    GDBusConnection* const connection = connect();
    if (connection != nullptr) keep(connection);
    return connection;
}

GDBusConnection* acquireSystemBus() {
    GDBusConnection* const connection = connect();
    if (connection != nullptr) ++keep(connection).references;
    return connection;
}

// Deliberate: the reference that construction took is not dropped. Switching off first after boot
// leaves the connection in use, because every later operation needs it. Held by
// BusReferences.SwitchingOffDropsOnlyABringUpsReference.
void releaseSystemBus(GDBusConnection* connection) {
    for (Kept& kept : keptConnections()) {
        if (kept.connection != connection || kept.references == 0) continue;
        --kept.references;
        g_object_unref(connection);
    }
}

}  // namespace corvane
