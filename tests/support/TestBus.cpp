#include "TestBus.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <system_error>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::test {

namespace {

[[noreturn]] void throwErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string quoted(const std::string& text) {
    return "'" + std::regex_replace(text, std::regex(R"([\\'])"), R"(\$&)") + "'";
}

}  // namespace

Child::Child(const std::vector<std::string>& words) : command(words) { start(); }

void Child::start() {
    stop();
    line.clear();
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    int ends[2];
    if (pipe(ends) != 0) throwErrno("pipe");
    const pid_t parent = getpid();
    pid = fork();
    if (pid < 0) throwErrno("fork");
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execvp(arguments[0], arguments.data());
        std::perror(arguments[0]);
        _exit(127);
    }
    close(ends[1]);
    char byte = 0;
    while (read(ends[0], &byte, 1) == 1 && byte != '\n') line += byte;
    close(ends[0]);
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
    GVariantIter* iterator = nullptr;
    g_variant_get(reply, "(a(xs))", &iterator);
    gint64 time = 0;
    const char* text = nullptr;
    while (g_variant_iter_next(iterator, "(x&s)", &time, &text) != FALSE) {
        result.emplace_back(time, text);
    }
    g_variant_iter_free(iterator);
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
