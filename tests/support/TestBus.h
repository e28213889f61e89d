#pragma once

#include "Folder.h"

#include <gio/gio.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace corvane::test {

/// A child process. The constructor and start() return when it has printed its first line; the
/// destructor ends it, or the kernel if the test dies first.
class Child {
public:
    explicit Child(const std::vector<std::string>& command);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    const std::string& firstLine() const { return line; }
    /// Ends it.
    void stop();
    /// Starts it again after its end.
    void start();

private:
    std::vector<std::string> command;
    pid_t pid = -1;
    std::string line;
};

/// A message bus that replaces the system bus for this process and its children, from before the
/// first use of the bus until the end of the process.
class PrivateBus {
public:
    PrivateBus();
    const std::string& address() const { return where; }
    void stop() { daemon.stop(); }
    /// Starts another bus at the same address, without anybody on it.
    void restart();

private:
    Folder folder;
    std::string where = "unix:path=" + folder / "bus";
    Child daemon;
};

/// A device as BlueZ shows it.
struct Device {
    std::string address;
    std::string name;
    std::uint32_t deviceClass = 0;
    bool paired = false;
    bool connected = false;
    std::string modalias = "";

    std::string path() const;
    /// Returns its entry in the reply to GetManagedObjects, in GVariant text form.
    std::string object() const;
};

/// The fake services (see tests/fakebluez), and how to control them.
class FakeBluez {
public:
    using Milliseconds = std::chrono::milliseconds;
    /// The delay of a reply that waits for letGo().
    static constexpr Milliseconds untilLetGo{G_MAXUINT};

    /// @param address  the private bus
    explicit FakeBluez(const std::string& address);
    ~FakeBluez();
    FakeBluez(const FakeBluez&) = delete;
    FakeBluez& operator=(const FakeBluez&) = delete;

    /// Makes a rule for later calls; tests/fakebluez describes rules.
    /// @param times  how many calls it serves, 0 for all
    void reply(const std::string& path, const std::string& member, const std::string& body,
               unsigned times = 0, Milliseconds delay = Milliseconds(0)) {
        rule(path, member, body, "", times, delay);
    }
    void fail(const std::string& path, const std::string& member, const std::string& errorName,
              const std::string& message, unsigned times = 0) {
        rule(path, member, message, errorName, times);
    }
    void ignore(const std::string& path, const std::string& member) { rule(path, member, ""); }
    /// Ends the services at such a call, after or instead of the reply.
    void crash(const std::string& path, const std::string& member, bool answered) {
        rule(path, member, answered ? "()" : "", "", 0, Milliseconds(0), true);
    }
    /// Ends the services now.
    void stop() { process.stop(); }
    /// Starts the services again at the same bus address, without rules and recorded calls.
    void restart();
    void own(const std::string& name) { tell("Own", g_variant_new("(s)", name.c_str())); }
    void release(const std::string& name) { tell("Release", g_variant_new("(s)", name.c_str())); }
    void emit(const std::string& path, const std::string& interface, const std::string& member,
              const std::string& body);

    /// Sets the devices that BlueZ lists besides the adapter; they accept every call.
    void setDevices(const std::vector<Device>& devices, unsigned times = 0,
                    Milliseconds delay = Milliseconds(0));

    /// Returns the recorded calls: monotonic time in microseconds, "NAME PATH INTERFACE.MEMBER
    /// ARGUMENTS".
    std::vector<std::pair<std::int64_t, std::string>> calls();
    /// Counts the recorded calls that contain the text.
    int countCalls(const std::string& text);
    void letGo() { tell("LetGo"); }
    void forget() { tell("Forget"); }

private:
    void rule(const std::string& path, const std::string& member, const std::string& body,
              const std::string& error = "", unsigned times = 0,
              Milliseconds delay = Milliseconds(0), bool crash = false);
    GVariant* call(const char* member, GVariant* arguments);
    void tell(const char* member, GVariant* arguments = nullptr) {
        g_variant_unref(call(member, arguments));
    }
    void connect();

    std::string address;
    Child process;
    GDBusConnection* connection = nullptr;
};

}  // namespace corvane::test
