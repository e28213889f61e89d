#include "TestBus.h"

#include <csignal>
#include <cstdlib>
#include <regex>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::test {

namespace {

std::string quoted(const std::string& text) {
    return "'" + std::regex_replace(text, std::regex(R"([\\'])"), R"(\$&)") + "'";
}

}  // namespace

Child::Child(const std::vector<std::string>& words) : command(words) { start(); }

void Child::start() {
    stop();
    line.clear();
    std::vector<char*> arguments;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const auto endWithParent = [](gpointer /*data*/) { prctl(PR_SET_PDEATHSIG, SIGTERM); };
    int output = -1;
    GError* error = nullptr;
    if (g_spawn_async_with_pipes(
            nullptr, arguments.data(), nullptr,
            static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD),
            endWithParent, nullptr, &pid, nullptr, &output, nullptr, &error) == FALSE) {
        throw std::runtime_error(error->message);
    }
    char byte = 0;
    while (read(output, &byte, 1) == 1 && byte != '\n') line += byte;
    close(output);
    if (byte != '\n') {
        stop();
        throw std::runtime_error(command.front() + " ended before it was ready");
    }
}

Child::~Child() { stop(); }

void Child::stop() {
    if (pid < 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

PrivateBus::PrivateBus()
    : daemon({"dbus-daemon", "--nofork", "--nopidfile", "--print-address", "--address=" + where,
              std::string("--config-file=") + CORVANE_BUS_CONFIG}) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", where.c_str(), 1);
}

void PrivateBus::restart() {
    daemon.stop();
    daemon.start();
}

std::string Device::path() const {
    std::string part = address;
    for (char& c : part) {
        if (c == ':') c = '_';
    }
    return "/org/bluez/hci0/dev_" + part;
}

std::string Device::object() const {
    std::string properties = "'Address': <" + quoted(address) + ">, 'Name': <" + quoted(name) +
                             ">, 'Alias': <'an alias'>, 'Class': <uint32 " +
                             std::to_string(deviceClass) + ">, 'Paired': <" +
                             (paired ? "true" : "false") + ">, 'Connected': <" +
                             (connected ? "true" : "false") + ">";
    if (!modalias.empty()) properties += ", 'Modalias': <" + quoted(modalias) + ">";
    return "@o '" + path() + "': {'org.bluez.Device1': {" + properties + "}}";
}

FakeBluez::FakeBluez(const std::string& busAddress)
    : address(busAddress), process({CORVANE_FAKEBLUEZ}) {
    connect();
}

void FakeBluez::connect() {
    GError* error = nullptr;
    connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (connection == nullptr) throw std::runtime_error(error->message);
}

FakeBluez::~FakeBluez() { g_object_unref(connection); }

void FakeBluez::restart() {
    process.start();
    g_object_unref(connection);
    connect();
}

GVariant* FakeBluez::call(const char* member, GVariant* arguments) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.corvane.FakeBluez", "/", "org.corvane.FakeBluez1", member, arguments,
        nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, &error);
    if (reply == nullptr) throw std::runtime_error(error->message);
    return reply;
}

void FakeBluez::rule(const std::string& path, const std::string& member, const std::string& body,
                     const std::string& error, unsigned times, Milliseconds delay, bool crash) {
    tell("Rule",
         g_variant_new("(ssssuub)", path.c_str(), member.c_str(), body.c_str(), error.c_str(),
                       times, static_cast<guint>(delay.count()), static_cast<gboolean>(crash)));
}

void FakeBluez::emit(const std::string& path, const std::string& interface,
                     const std::string& member, const std::string& body) {
    tell("Emit",
         g_variant_new("(ssss)", path.c_str(), interface.c_str(), member.c_str(), body.c_str()));
}

void FakeBluez::setDevices(const std::vector<Device>& devices, unsigned times, Milliseconds delay) {
    std::string objects = "@o '/org/bluez/hci0': {'org.bluez.Adapter1': {'Powered': <true>}}";
    for (const Device& device : devices) {
        objects += ", " + device.object();
        reply(device.path(), "*", "()");
    }
    reply("/", "GetManagedObjects", "({" + objects + "},)", times, delay);
}

std::vector<std::pair<std::int64_t, std::string>> FakeBluez::calls() {
    GVariant* reply = call("Calls", nullptr);
    std::vector<std::pair<std::int64_t, std::string>> result;
    GVariant* list = g_variant_get_child_value(reply, 0);
    for (gsize i = 0; i < g_variant_n_children(list); ++i) {
        gint64 time = 0;
        const char* text = nullptr;
        g_variant_get_child(list, i, "(x&s)", &time, &text);
        result.emplace_back(time, text);
    }
    g_variant_unref(list);
    g_variant_unref(reply);
    return result;
}

int FakeBluez::countCalls(const std::string& text) {
    int count = 0;
    for (const auto& entry : calls()) {
        if (entry.second.find(text) != std::string::npos) ++count;
    }
    return count;
}

}  // namespace corvane::test
