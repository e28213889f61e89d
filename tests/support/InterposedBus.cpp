// The calls over the bus, which pass through unless a test says otherwise. In a file of its own,
// because the fuzz targets answer these calls themselves.

#include "Edges.h"

#include <gio/gio.h>

#include <string_view>

#include <dlfcn.h>

using corvane::test::edges;

namespace {

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

GVariant* g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* busName,
                                      const gchar* path, const gchar* interface,
                                      const gchar* method, GVariant* arguments,
                                      const GVariantType* replyType, GDBusCallFlags flags,
                                      gint timeout, GCancellable* cancellable, GError** error) {
    if (std::string_view(busName) == "org.bluez") {
        if (edges().onCall) edges().onCall(method);
        if (edges().noReplies) {
            if (arguments != nullptr) g_variant_unref(g_variant_ref_sink(arguments));
            return nullptr;
        }
    }
    return next<decltype(g_dbus_connection_call_sync)>("g_dbus_connection_call_sync")(
        connection, busName, path, interface, method, arguments, replyType, flags, timeout,
        cancellable, error);
}

}  // extern "C"
