// The calls over the bus, which pass through unless a test says otherwise. In a file of its own,
// because the fuzz targets answer these calls themselves.

#include "BluetoothManager.h"

#include "Edges.h"

#include <gio/gio.h>

#include <string_view>
#include <vector>

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

void g_dbus_connection_call(GDBusConnection* connection, const gchar* busName, const gchar* path,
                            const gchar* interface, const gchar* method, GVariant* arguments,
                            const GVariantType* replyType, GDBusCallFlags flags, gint timeout,
                            GCancellable* cancellable, GAsyncReadyCallback callback,
                            gpointer userData) {
    if (edges().standIn != nullptr) {
        struct Asked {
            GAsyncReadyCallback callback;
            gpointer userData;
        };
        static Asked asked;  // there is no second call before the answer
        asked = {callback, userData};
        g_idle_add(
            [](gpointer /*data*/) -> gboolean {
                asked.callback(edges().standIn, nullptr, asked.userData);
                return G_SOURCE_REMOVE;
            },
            nullptr);
        return;
    }
    next<decltype(g_dbus_connection_call)>("g_dbus_connection_call")(
        connection, busName, path, interface, method, arguments, replyType, flags, timeout,
        cancellable, callback, userData);
}

GVariant* g_dbus_connection_call_finish(GDBusConnection* connection, GAsyncResult* result,
                                        GError** error) {
    if (result == nullptr) return nullptr;
    return next<decltype(g_dbus_connection_call_finish)>("g_dbus_connection_call_finish")(
        connection, result, error);
}

}  // extern "C"

std::vector<BluetoothConnectionInfo>& BluetoothManager::getBluetoothDeviceList(
    BluetoothDeviceListType type) {
    if (edges().listsUsed != nullptr) edges().listsUsed->push_back(type);
    using List = std::vector<BluetoothConnectionInfo>&(BluetoothManager*, BluetoothDeviceListType);
    static List* const list =
        next<List>("_ZN16BluetoothManager22getBluetoothDeviceListE23BluetoothDeviceListType");
    return list(this, type);
}
