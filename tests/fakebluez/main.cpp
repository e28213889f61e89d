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
//   Rule(s path, s member, s body, s error, u times, u delay, b crash)
//     Answers the calls that match path and member, patterns with * and ?. The member of a property
//     write is "Set PROPERTY".
//     body: the reply, a tuple in GVariant text form such as "('Connect success',)"; doubled
//     dictionary keys are sent as they are. With an error, body is the error's text. Without body
//     and error, no answer comes.
//     times: how many calls the rule serves, 0 for all.
//     delay: milliseconds before the answer, 4294967295 for until LetGo; later calls do not wait.
//     crash: end this process after the answer.
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

#include <algorithm>
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
    std::string text;
    GVariant* body;  // null: no reply
    std::string error;
    guint timesLeft;
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

/// Passes the message to the function on the main loop. For any thread.
void later(guint delay, void (*use)(const MessagePtr&), const MessagePtr& message) {
    using Use = std::pair<void (*)(const MessagePtr&), MessagePtr>;
    g_timeout_add_full(
        G_PRIORITY_DEFAULT, delay,
        [](gpointer data) -> gboolean {
            const auto& [function, argument] = *static_cast<Use*>(data);
            function(argument);
            return G_SOURCE_REMOVE;
        },
        new Use(use, message), [](gpointer data) { delete static_cast<Use*>(data); });
}

MessagePtr replyTo(const MessagePtr& call, GVariant* body) {
    MessagePtr reply = own(g_dbus_message_new_method_reply(call.get()));
    if (body != nullptr) g_dbus_message_set_body(reply.get(), body);
    return reply;
}

MessagePtr errorFor(const MessagePtr& call, const std::string& name, const std::string& text) {
    return own(g_dbus_message_new_method_error_literal(call.get(), name.c_str(), text.c_str()));
}

/// @return false when the body cannot be sent
bool addRule(const char* path, const char* member, const char* text, const char* error = "",
             guint times = 0, guint delay = 0, bool crash = false) {
    GVariant* body = nullptr;
    if (*text != '\0' && *error == '\0') {
        body = g_variant_parse(nullptr, text, nullptr, nullptr, nullptr);
        if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE_TUPLE)) return false;
    }
    rules.insert(rules.begin(), Rule{path, member, text, body, error, times > 0 ? times : G_MAXUINT,
                                     delay, crash});
    return true;
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
    const std::string asked =
        member + (arguments == nullptr ? "()" : g_variant_get_type_string(arguments));
    const char* path = "";
    const char* name = "";
    const char* text = "";
    const char* other = "";
    GVariant* result = nullptr;
    bool done = true;
    if (asked == "Rule(ssssuub)") {
        guint times = 0;
        guint delay = 0;
        gboolean crash = FALSE;
        g_variant_get(arguments, "(&s&s&s&suub)", &path, &name, &text, &other, &times, &delay,
                      &crash);
        done = addRule(path, name, text, other, times, delay, crash != FALSE);
    } else if (asked == "Own(s)" || asked == "Release(s)") {
        g_variant_get(arguments, "(&s)", &name);
        done = changeName(member == "Own" ? "RequestName" : "ReleaseName", name);
    } else if (asked == "Emit(ssss)") {
        g_variant_get(arguments, "(&s&s&s&s)", &path, &other, &name, &text);
        g_dbus_connection_emit_signal(bus, nullptr, path, other, name,
                                      g_variant_parse(nullptr, text, nullptr, nullptr, nullptr),
                                      nullptr);
    } else if (asked == "Calls()") {
        GVariantBuilder list;
        g_variant_builder_init(&list, G_VARIANT_TYPE("a(xs)"));
        for (const auto& [time, what] : calls) {
            g_variant_builder_add(&list, "(xs)", time, what.c_str());
        }
        result = g_variant_new("(a(xs))", &list);
    } else if (asked == "LetGo()") {
        for (const MessagePtr& answer : heldAnswers) send(answer);
        heldAnswers.clear();
    } else if (asked == "Forget()") {
        calls.clear();
    } else {
        done = false;
    }
    send(done ? replyTo(call, result)
              : errorFor(call, "org.corvane.FakeBluez.Error",
                         "cannot do " + asked + ": " + name + " " + text));
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

    gchar* const printed = arguments == nullptr ? g_strdup("()") : g_variant_print(arguments, TRUE);
    calls.emplace_back(g_get_monotonic_time(),
                       std::string(g_dbus_message_get_destination(message)) + " " + path + " " +
                           interface + "." + member + " " + printed);
    g_free(printed);
    if (member == "Set" && arguments != nullptr && g_variant_n_children(arguments) == 3) {
        const char* property = nullptr;
        g_variant_get_child(arguments, 1, "&s", &property);
        member = member + " " + property;
    }
    const auto rule = std::find_if(rules.begin(), rules.end(), [&](const Rule& candidate) {
        return candidate.timesLeft > 0 &&
               g_pattern_match_simple(candidate.path.c_str(), path.c_str()) &&
               g_pattern_match_simple(candidate.member.c_str(), member.c_str());
    });
    if (rule == rules.end()) {
        send(errorFor(call, "org.freedesktop.DBus.Error.UnknownObject", "no rule for " + path));
        return;
    }
    --rule->timesLeft;
    MessagePtr answer;
    if (rule->body != nullptr) answer = replyTo(call, rule->body);
    if (!rule->error.empty()) answer = errorFor(call, rule->error, rule->text);
    if (answer && rule->delay == G_MAXUINT) {
        heldAnswers.push_back(answer);
    } else if (answer && rule->delay > 0) {
        later(rule->delay, send, answer);
    } else if (answer) {
        send(answer);
    }
    if (rule->crash) {
        g_dbus_connection_flush_sync(bus, nullptr, nullptr);
        std::_Exit(EXIT_SUCCESS);
    }
}

// Runs on GDBus's thread. Passes each call to the main loop, so that everything else is
// single-threaded.
GDBusMessage* take(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming,
                   gpointer /*userData*/) {
    if (incoming == FALSE ||
        g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return message;
    }
    later(0, serve, own(message));
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    GError* error = nullptr;
    bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (bus == nullptr) {
        std::fprintf(stderr, "corvane-fakebluez: no system bus: %s\n", error->message);
        return EXIT_FAILURE;
    }
    constexpr char hid[] = "/org/corvane/BluetoothHid";
    addRule("/org/bluez*", "*", "()");
    addRule("/org/bluez/hci0/dev_*", "*", "no such device",
            "org.freedesktop.DBus.Error.UnknownObject");
    addRule("/", "GetManagedObjects",
            "({@o '/org/bluez/hci0': {'org.bluez.Adapter1': {'Powered': <true>}}},)");
    addRule(hid, "Connect", "('Connect success',)");
    addRule(hid, "Disconnect", "('Disconnect success',)");
    addRule("/org/corvane/Hardware", "GetHardwareInfo", "('',)");
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
