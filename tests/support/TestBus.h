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

/// A child process: started by the constructor and start(), which return when it has printed its
/// first line; ended by the destructor, or by the kernel should the test die before.
class Child {
public:
    explicit Child(const std::vector<std::string>& command);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    const std::string& firstLine() const { return line; }
    /// Ends it now.
    void stop();
    /// Starts it anew, after its end.
    void start();

private:
    std::vector<std::string> command;
    pid_t pid = -1;
    std::string line;
};

/// A message bus that takes the system bus's place in this process and its children, from before
/// the first use of the bus until the end of the process.
class PrivateBus {
public:
    PrivateBus();
    const std::string& address() const { return where; }
    void stop() { daemon.stop(); }
    /// The same address, another bus: nobody is on it.
    void restart();

private:
    Folder folder;
    std::string where = "unix:path=" + folder / "bus";
    Child daemon;
};

/// A device as BlueZ would show it.
struct Device {
    std::string address;
    std::string name;
    std::uint32_t deviceClass = 0;
    bool paired = false;
    bool connected = false;
    std::string modalias = "";

    std::string path() const;
    /// Its entry of the reply to GetManagedObjects, in GVariant text form.
    std::string object() const;
};

/// The fake services (tests/fakebluez says what they do), and the way to steer them.
class FakeBluez {
public:
    using Milliseconds = std::chrono::milliseconds;
    /// Delay of a reply that waits for letGo().
    static constexpr Milliseconds untilLetGo{G_MAXUINT};

    /// @param address  the private bus
    explicit FakeBluez(const std::string& address);
    ~FakeBluez();
    FakeBluez(const FakeBluez&) = delete;
    FakeBluez& operator=(const FakeBluez&) = delete;

    void reply(const std::string& path, const std::string& member, const std::string& body,
               unsigned times = 0, Milliseconds delay = Milliseconds(0));
    void fail(const std::string& path, const std::string& member, const std::string& errorName,
              const std::string& message, unsigned times = 0, Milliseconds delay = Milliseconds(0));
    void ignore(const std::string& path, const std::string& member, unsigned times = 0);
    /// The services end at such a call, after or instead of the answer.
    void crash(const std::string& path, const std::string& member, bool answered);
    /// They end now.
    void stop() { process.stop(); }
    /// They start anew, after their end, on the bus of the same address: no rule, no call is left.
    void restart();
    void own(const std::string& name);
    void release(const std::string& name);
    void emit(const std::string& path, const std::string& interface, const std::string& member,
              const std::string& body);

    /// The devices that BlueZ knows, beside the adapter: listed, and agreeing to every call.
    void setDevices(const std::vector<Device>& devices, unsigned times = 0,
                    Milliseconds delay = Milliseconds(0));

    /// What came in: monotonic time in microseconds, and "NAME PATH INTERFACE.MEMBER ARGUMENTS".
    std::vector<std::pair<std::int64_t, std::string>> calls();
    /// How many of them hold the text.
    int countCalls(const std::string& text);
    void letGo();
    void forget();

private:
    GVariant* call(const char* member, GVariant* arguments);
    void connect();

    std::string address;
    Child process;
    GDBusConnection* connection = nullptr;
};

}  // namespace corvane::test
