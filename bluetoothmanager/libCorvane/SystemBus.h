#pragma once

#include <gio/gio.h>

namespace corvane {

/// Checks that `wanted` more descriptors can be opened. GLib aborts if it cannot create a main
/// context, which every synchronous bus call needs; checking first makes that an error.
/// @return 0, or the errno of the descriptor that could not be opened
int lackOfDescriptors(unsigned wanted);

/// Connects to the system bus: through GIO's shared connection, or through one of our own where GIO
/// still hands out a connection that the bus has closed. Each connection that was ever returned
/// stays referenced as long as the process lives, so no thread can use a freed one.
/// @return null without a bus, a descriptor or a thread
GDBusConnection* openSystemBus();

/// The same for a bring-up, which takes a reference of its own.
GDBusConnection* acquireSystemBus();

/// Drops the reference of one bring-up. Does nothing for null, and when none is left.
void releaseSystemBus(GDBusConnection* connection);

/// The manager's connection as other threads may read it while a bring-up stores another one. There
/// is no lock: a caller gets the old one or the new one, reads it once, and both stay valid.
inline GDBusConnection* current(GDBusConnection* const& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
inline void store(GDBusConnection*& field, GDBusConnection* connection) {
    __atomic_store_n(&field, connection, __ATOMIC_RELEASE);
}

}  // namespace corvane
