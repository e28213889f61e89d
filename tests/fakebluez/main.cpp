// Replaces the services that the library uses on the system bus: BlueZ, the hardware service and
// the HID service. It has no state: each call is recorded, then answered by the newest rule that
// matches.
//
// Usage: corvane-fakebluez [NAME...]
//   Owns the bus names (without any: org.bluez, org.corvane.Hardware, org.corvane.BluetoothHid) on
//   the system bus (DBUS_SYSTEM_BUS_ADDRESS), prints "ready" and serves until it is ended or the
//   bus goes.
//
// Steered over the bus: name org.corvane.FakeBluez, any object, interface org.corvane.FakeBluez1,
// for instance with gdbus call.
//   Reply(s path, s member, s body, u times, u delay)
//   Fail(s path, s member, s errorName, s message, u times, u delay)
//   Ignore(s path, s member, u times)
//   Crash(s path, s member, b answered)
//     Adds a rule: a reply (body: a tuple in GVariant text form, "('Connect success',)"; doubled
//     dictionary keys are sent as they are), an error, no answer at all, or the end of this
//     process, right after an empty reply (answered) or instead of one.
//     path and member are patterns with * and ?; the member of a property write is "Set PROPERTY".
//     times: how many calls it serves, 0 for all. delay: milliseconds; later calls do not wait.
//     4294967295: until LetGo.
//   LetGo()                        sends the answers that wait for it
//   Own(s name), Release(s name)   a bus name comes or goes
//   Emit(s path, s interface, s member, s body)   a signal
//   Calls() -> a(xs)               what came in: monotonic time in microseconds, and
//                                  "NAME PATH INTERFACE.MEMBER ARGUMENTS"
//   Forget()                       empties that list
//
// At first BlueZ has an adapter, knows no device and accepts every call on adapter and agent
// manager; the HID service connects and disconnects; the hardware service returns an empty text.

#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using MessagePtr = std::shared_ptr<GDBusMessage>;

struct Rule {
    std::string path;
    std::string member;
    GVariant* body;         // null: no reply
    std::string errorName;  // empty: no error
    std::string errorMessage;
    guint timesLeft;
    bool limited;
    guint delay;
    bool crash;
};

GDBusConnection* bus = nullptr;
std::vector<Rule> rules;
std::vector<std::pair<gint64, std::string>> calls;
std::vector<MessagePtr> heldAnswers;

MessagePtr own(GDBusMessage* message) { return {message, g_object_unref}; }

void send(const MessagePtr& message) {
    g_dbus_connection_send_message(bus, message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
}

void sendLater(const MessagePtr& message, guint delay) {
    g_timeout_add_full(
        G_PRIORITY_DEFAULT, delay,
        [](gpointer data) -> gboolean {
            send(*static_cast<MessagePtr*>(data));
            return G_SOURCE_REMOVE;
        },
        new MessagePtr(message), [](gpointer data) { delete static_cast<MessagePtr*>(data); });
}

MessagePtr replyTo(const MessagePtr& call, GVariant* body) {
    MessagePtr reply = own(g_dbus_message_new_method_reply(call.get()));
    if (body != nullptr) g_dbus_message_set_body(reply.get(), body);
    return reply;
}

MessagePtr errorFor(const MessagePtr& call, const std::string& name, const std::string& text) {
    return own(g_dbus_message_new_method_error_literal(call.get(), name.c_str(), text.c_str()));
}

void addRule(const char* path, const char* member, GVariant* body, const char* errorName,
             const char* errorMessage, guint times, guint delay, bool crash = false) {
    rules.insert(rules.begin(),
                 Rule{path, member, body, errorName, errorMessage, times, times > 0, delay, crash});
}

GVariant* parse(const char* text, GError** error) {
    GVariant* body = g_variant_parse(nullptr, text, nullptr, nullptr, error);
    if (body != nullptr && !g_variant_is_of_type(body, G_VARIANT_TYPE_TUPLE)) {
        g_variant_unref(body);
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "not a tuple");
        return nullptr;
    }
    return body;
}

bool changeName(const char* method, const char* name) {
    const bool request = std::string(method) == "RequestName";
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        request ? g_variant_new("(su)", name, 0U) : g_variant_new("(s)", name), nullptr,
        G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr);
    if (reply == nullptr) return false;
    guint32 outcome = 0;
    g_variant_get(reply, "(u)", &outcome);
    g_variant_unref(reply);
    return outcome == 1;
}

void control(const MessagePtr& call, const std::string& member, GVariant* arguments) {
    const char* path = nullptr;
    const char* pattern = nullptr;
    const char* text = nullptr;
    const char* text2 = nullptr;
    guint times = 0;
    guint delay = 0;
    const std::string signature =
        arguments == nullptr ? "()" : g_variant_get_type_string(arguments);
    if (member == "Reply" && signature == "(sssuu)") {
        g_variant_get(arguments, "(&s&s&suu)", &path, &pattern, &text, &times, &delay);
        GError* error = nullptr;
        GVariant* body = parse(text, &error);
        if (body == nullptr) {
            send(errorFor(call, "org.corvane.FakeBluez.Error.Body", error->message));
            g_error_free(error);
            return;
        }
        addRule(path, pattern, body, "", "", times, delay);
    } else if (member == "Fail" && signature == "(ssssuu)") {
        g_variant_get(arguments, "(&s&s&s&suu)", &path, &pattern, &text, &text2, &times, &delay);
        addRule(path, pattern, nullptr, text, text2, times, delay);
    } else if (member == "Ignore" && signature == "(ssu)") {
        g_variant_get(arguments, "(&s&su)", &path, &pattern, &times);
        addRule(path, pattern, nullptr, "", "", times, 0);
    } else if (member == "Crash" && signature == "(ssb)") {
        gboolean answered = FALSE;
        g_variant_get(arguments, "(&s&sb)", &path, &pattern, &answered);
        addRule(path, pattern, answered != FALSE ? parse("()", nullptr) : nullptr, "", "", 0, 0,
                true);
    } else if ((member == "Own" || member == "Release") && signature == "(s)") {
        g_variant_get(arguments, "(&s)", &text);
        if (!changeName(member == "Own" ? "RequestName" : "ReleaseName", text)) {
            send(errorFor(call, "org.corvane.FakeBluez.Error.Name", text));
            return;
        }
    } else if (member == "Emit" && signature == "(ssss)") {
        const char* interface = nullptr;
        g_variant_get(arguments, "(&s&s&s&s)", &path, &interface, &pattern, &text);
        g_dbus_connection_emit_signal(bus, nullptr, path, interface, pattern, parse(text, nullptr),
                                      nullptr);
    } else if (member == "Calls" && signature == "()") {
        GVariantBuilder list;
        g_variant_builder_init(&list, G_VARIANT_TYPE("a(xs)"));
        for (const auto& [time, what] : calls)
            g_variant_builder_add(&list, "(xs)", time, what.c_str());
        send(replyTo(call, g_variant_new("(a(xs))", &list)));
        return;
    } else if (member == "LetGo" && signature == "()") {
        for (const MessagePtr& answer : heldAnswers) send(answer);
        heldAnswers.clear();
    } else if (member == "Forget" && signature == "()") {
        calls.clear();
    } else {
        send(errorFor(call, "org.freedesktop.DBus.Error.UnknownMethod",
                      "no such control: " + member + signature));
        return;
    }
    send(replyTo(call, nullptr));
}

void serve(const MessagePtr& call) {
    GDBusMessage* const message = call.get();
    const std::string interface = g_dbus_message_get_interface(message);
    std::string member = g_dbus_message_get_member(message);
    const std::string path = g_dbus_message_get_path(message);
    GVariant* const arguments = g_dbus_message_get_body(message);
    if (interface == "org.corvane.FakeBluez1") {
        control(call, member, arguments);
        return;
    }

    std::string text = "()";
    if (arguments != nullptr) {
        gchar* printed = g_variant_print(arguments, TRUE);
        text = printed;
        g_free(printed);
    }
    calls.emplace_back(g_get_monotonic_time(),
                       std::string(g_dbus_message_get_destination(message)) + " " + path + " " +
                           interface + "." + member + " " + text);
    if (member == "Set" && arguments != nullptr && g_variant_n_children(arguments) == 3) {
        const char* property = nullptr;
        g_variant_get_child(arguments, 1, "&s", &property);
        member = member + " " + property;
    }
    for (Rule& rule : rules) {
        if (rule.limited && rule.timesLeft == 0) continue;
        if (!g_pattern_match_simple(rule.path.c_str(), path.c_str()) ||
            !g_pattern_match_simple(rule.member.c_str(), member.c_str())) {
            continue;
        }
        if (rule.limited) --rule.timesLeft;
        MessagePtr answer;
        if (rule.body != nullptr) answer = replyTo(call, rule.body);
        if (!rule.errorName.empty()) answer = errorFor(call, rule.errorName, rule.errorMessage);
        if (answer && rule.delay == G_MAXUINT) {
            heldAnswers.push_back(answer);
        } else if (answer && rule.delay > 0) {
            sendLater(answer, rule.delay);
        } else if (answer) {
            send(answer);
        }
        if (rule.crash) {
            g_dbus_connection_flush_sync(bus, nullptr, nullptr);
            std::_Exit(EXIT_SUCCESS);
        }
        return;
    }
    send(errorFor(call, "org.freedesktop.DBus.Error.UnknownObject", "no rule for " + path));
}

// Runs on GDBus's thread. Passes each call to the main loop, so that everything else is
// single-threaded.
GDBusMessage* take(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming,
                   gpointer /*userData*/) {
    if (incoming == FALSE ||
        g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return message;
    }
    g_main_context_invoke_full(
        nullptr, G_PRIORITY_DEFAULT,
        [](gpointer data) -> gboolean {
            serve(*static_cast<MessagePtr*>(data));
            return G_SOURCE_REMOVE;
        },
        new MessagePtr(own(message)), [](gpointer data) { delete static_cast<MessagePtr*>(data); });
    return nullptr;
}

GVariant* constant(const char* text) { return g_variant_ref_sink(g_variant_new_parsed(text)); }

}  // namespace

int main(int argc, char** argv) {
    GError* error = nullptr;
    bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (bus == nullptr) {
        std::fprintf(stderr, "corvane-fakebluez: no system bus: %s\n", error->message);
        return EXIT_FAILURE;
    }
    constexpr char hid[] = "/org/corvane/BluetoothHid";
    addRule("/org/bluez*", "*", constant("()"), "", "", 0, 0);
    addRule("/org/bluez/hci0/dev_*", "*", nullptr, "org.freedesktop.DBus.Error.UnknownObject",
            "no such device", 0, 0);
    addRule(
        "/", "GetManagedObjects",
        constant("({objectpath '/org/bluez/hci0': {'org.bluez.Adapter1': {'Powered': <true>}}},)"),
        "", "", 0, 0);
    addRule(hid, "Connect", constant("('Connect success',)"), "", "", 0, 0);
    addRule(hid, "Disconnect", constant("('Disconnect success',)"), "", "", 0, 0);
    addRule("/org/corvane/Hardware", "GetHardwareInfo", constant("('',)"), "", "", 0, 0);
    g_dbus_connection_add_filter(bus, take, nullptr, nullptr);

    std::vector<std::string> names(argv + 1, argv + argc);
    if (names.empty()) names = {"org.bluez", "org.corvane.Hardware", "org.corvane.BluetoothHid"};
    names.emplace_back("org.corvane.FakeBluez");
    for (const std::string& name : names) {
        if (changeName("RequestName", name.c_str())) continue;
        std::fprintf(stderr, "corvane-fakebluez: cannot own the bus name %s\n", name.c_str());
        return EXIT_FAILURE;
    }
    std::puts("ready");
    std::fflush(stdout);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
