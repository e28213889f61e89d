#pragma once

#include <gio/gio.h>

namespace corvane::bench {

/// What bluetoothd's GetManagedObjects holds when it knows so many devices, in its order: the agent
/// manager, the adapter, then the devices with every interface and property that BlueZ 5.66 shows.
/// Each second is a low-energy one, each tenth is paired, each fiftieth connected.
/// @return floating, of type a{oa{sa{sv}}}
GVariant* managedObjects(unsigned devices);

}  // namespace corvane::bench
