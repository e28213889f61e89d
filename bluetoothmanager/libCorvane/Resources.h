#pragma once

#include <gio/gio.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace corvane {

/// A descriptor for a moment; -1 (errno) when there is none to be had. A copy costs a tenth of a
/// new one; a host without a standard error gets a new one.
inline int openProbe() {
    const int copy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    return copy >= 0 || errno != EBADF ? copy : open("/", O_PATH | O_CLOEXEC);
}

/// Whether the process may open so many descriptors more. GLib needs one for every main context,
/// also for that of a synchronous bus call, and ends the process when it gets none; who asks first
/// can fail instead.
/// @return 0, or the errno of the one that it did not get
inline int lackOfDescriptors(unsigned wanted) {
    if (wanted == 0) return 0;
    const int probe = openProbe();
    if (probe < 0) return errno;
    const int lack = lackOfDescriptors(wanted - 1);
    close(probe);
    return lack;
}

/// The process's shared connection to the system bus; null when there is none to be had. The first
/// one starts GDBus's own thread, without which GLib would end the process as well.
inline GDBusConnection* openSystemBus() {
    constexpr unsigned neededDescriptors = 2;  // its socket, the main context of GDBus's thread
    if (lackOfDescriptors(neededDescriptors) != 0) return nullptr;
    try {
        std::thread([] {}).join();
    } catch (const std::system_error&) {
        return nullptr;
    }
    return g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
}

}  // namespace corvane
