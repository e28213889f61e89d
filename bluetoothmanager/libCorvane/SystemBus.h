#pragma once

#include <gio/gio.h>

namespace corvane {

/// Checks that `wanted` more descriptors can be opened. GLib aborts if it cannot create a main
/// context, which every synchronous bus call needs; checking first makes that an error.
/// @param wanted  the number of descriptors
/// @return 0, or the errno of the descriptor that could not be opened
int lackOfDescriptors(unsigned wanted);

/// Connects to the system bus: through GIO's shared connection, or through one of our own if GIO
/// still returns a closed one. Every returned connection stays referenced until the process ends,
/// so no thread can use a freed one.
/// @return the connection; null without a bus, a descriptor or a thread
GDBusConnection* openSystemBus();

/// Like openSystemBus(), with a reference for a bring-up.
/// @return the connection; null without a bus, a descriptor or a thread
GDBusConnection* acquireSystemBus();

/// Drops the reference of one bring-up. Does nothing for null or without such a reference.
/// @param connection  the connection
void releaseSystemBus(GDBusConnection* connection);

/// Reads the manager's connection, also while a bring-up on another thread stores a new one. There
/// is no lock: the caller gets the old or the new connection, and both stay valid.
/// @param field  the manager's connection
/// @return the connection
inline GDBusConnection* current(GDBusConnection* const& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
/// Stores the manager's connection for current().
/// @param field       the manager's connection
/// @param connection  the new one
inline void store(GDBusConnection*& field, GDBusConnection* connection) {
    __atomic_store_n(&field, connection, __ATOMIC_RELEASE);
}

}  // namespace corvane
