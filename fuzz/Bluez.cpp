#include "Bluez.h"

#include "Machine.h"

#include <cstring>

#include <dlfcn.h>

namespace corvane::fuzz {

namespace {

constexpr char replyType[] = "(a{oa{sa{sv}}})";

Message answer;

/// As GDBus does it: @return the body, with a reference of the caller's; null with the error set
GVariant* resultOf(const Message& message, const GVariantType* type, GError** error) {
    if (g_dbus_message_to_gerror(message.get(), error) != FALSE) return nullptr;
    GVariant* const body = g_dbus_message_get_body(message.get());
    const Value result = own(body == nullptr ? g_variant_new("()") : g_variant_ref(body));
    if (type != nullptr && g_variant_is_of_type(result.get(), type) == FALSE) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "another type");
        return nullptr;
    }
    return g_variant_ref(result.get());
}

}  // namespace

Value own(GVariant* value) { return {g_variant_take_ref(value), g_variant_unref}; }

Message messageOf(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t header = 16;
    if (size < header) return {};
    // GDBus wants bytes that it may change.
    std::vector<guchar> bytes(data, data + size);
    const gssize needed = g_dbus_message_bytes_needed(bytes.data(), bytes.size(), nullptr);
    if (needed < 0 || static_cast<gsize>(needed) > size) return {};
    GDBusMessage* const message = g_dbus_message_new_from_blob(
        bytes.data(), static_cast<gsize>(needed), G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
    if (message == nullptr) return {};
    const Message owned(message, g_object_unref);
    const guchar type = bytes[1];  // any number, not only those that the enumeration names
    const bool isReply =
        type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR;
    return isReply ? owned : Message{};
}

bool readReply(const Message& message, Reply& reply) {
    GVariant* const result = resultOf(message, G_VARIANT_TYPE(replyType), nullptr);
    if (result == nullptr) return false;
    const Value owned = own(result);
    GVariantIter* objects = nullptr;
    g_variant_get(result, replyType, &objects);
    const char* path = nullptr;
    GVariantIter* interfaces = nullptr;
    while (g_variant_iter_next(objects, "{&oa{sa{sv}}}", &path, &interfaces) != FALSE) {
        Object object{path, {}};
        const char* name = nullptr;
        GVariantIter* properties = nullptr;
        while (g_variant_iter_next(interfaces, "{&sa{sv}}", &name, &properties) != FALSE) {
            Interface interface {
                name, {}
            };
            const char* key = nullptr;
            GVariant* value = nullptr;
            while (g_variant_iter_next(properties, "{&sv}", &key, &value) != FALSE) {
                interface.properties.push_back({key, own(value)});
            }
            g_variant_iter_free(properties);
            object.interfaces.push_back(std::move(interface));
        }
        g_variant_iter_free(interfaces);
        reply.push_back(std::move(object));
    }
    g_variant_iter_free(objects);
    return true;
}

std::vector<std::uint8_t> wireOf(const Value& body, GDBusMessageByteOrder order) {
    const Message message(g_dbus_message_new(), g_object_unref);
    g_dbus_message_set_message_type(message.get(), G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(message.get(), 1);
    g_dbus_message_set_serial(message.get(), 1);
    g_dbus_message_set_byte_order(message.get(), order);
    g_dbus_message_set_body(message.get(), body.get());
    gsize size = 0;
    guchar* const blob = g_dbus_message_to_blob(message.get(), &size,
                                                G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
    if (blob == nullptr) return {};
    std::vector<std::uint8_t> bytes(blob, blob + size);
    g_free(blob);
    return bytes;
}

std::vector<std::uint8_t> wireOf(const Reply& reply, GDBusMessageByteOrder order) {
    GVariantBuilder objects;
    g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    for (const Object& object : reply) {
        GVariantBuilder interfaces;
        g_variant_builder_init(&interfaces, G_VARIANT_TYPE("a{sa{sv}}"));
        for (const Interface& interface : object.interfaces) {
            GVariantBuilder properties;
            g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
            for (const Property& property : interface.properties) {
                g_variant_builder_add(&properties, "{sv}", property.name.c_str(),
                                      property.value.get());
            }
            g_variant_builder_add(&interfaces, "{sa{sv}}", interface.name.c_str(), &properties);
        }
        g_variant_builder_add(&objects, "{oa{sa{sv}}}", object.path.c_str(), &interfaces);
    }
    return wireOf(own(g_variant_new(replyType, &objects)), order);
}

void bluezAnswers(const Message& message) { answer = message; }

}  // namespace corvane::fuzz

using corvane::fuzz::require;

extern "C" {

void g_dbus_connection_call(GDBusConnection* connection, const gchar* /*busName*/,
                            const gchar* /*path*/, const gchar* /*interface*/, const gchar* method,
                            GVariant* /*parameters*/, const GVariantType* type,
                            GDBusCallFlags /*flags*/, gint /*timeout*/, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer userData) {
    require(std::strcmp(method, "GetManagedObjects") == 0, "the one call that does not wait");
    GTask* const task = g_task_new(connection, cancellable, callback, userData);
    GError* error = nullptr;
    GVariant* const result = corvane::fuzz::resultOf(corvane::fuzz::answer, type, &error);
    if (result == nullptr) {
        g_task_return_error(task, error);
    } else {
        g_task_return_pointer(task, result, reinterpret_cast<GDestroyNotify>(g_variant_unref));
    }
    g_object_unref(task);
}

GVariant* g_dbus_connection_call_finish(GDBusConnection* /*connection*/, GAsyncResult* result,
                                        GError** error) {
    return static_cast<GVariant*>(g_task_propagate_pointer(G_TASK(result), error));
}

GVariant* g_dbus_connection_call_sync(GDBusConnection* /*connection*/, const gchar* /*busName*/,
                                      const gchar* path, const gchar* /*interface*/,
                                      const gchar* /*method*/, GVariant* parameters,
                                      const GVariantType* /*type*/, GDBusCallFlags /*flags*/,
                                      gint /*timeout*/, GCancellable* /*cancellable*/,
                                      GError** /*error*/) {
    require(g_variant_is_object_path(path) != FALSE, "calls go to object paths");
    if (parameters != nullptr) g_variant_unref(g_variant_ref_sink(parameters));
    return g_variant_ref_sink(g_variant_new("()"));
}

}  // extern "C"
