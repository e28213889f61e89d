#pragma once

#include <gio/gio.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace corvane::test {

/// An action of the library on its machine, other than over the bus, as recorded by Interposed.cpp.
/// Nothing reaches the machine that runs the test.
enum class Kind { SHELL, GPIO, HCI, FILE, SLEEP, LOG, BUS };

struct Event {
    std::int64_t time;  // monotonic, microseconds
    Kind kind;
    std::string text;
};

struct LogRecord {
    std::string level;
    std::string message;
    std::string file;  // without its folder
    std::string function;
};

/// The machine as the library sees it: the results of its calls, which a test sets before it calls
/// the library, and a record of them.
class Edges {
public:
    // Files
    std::set<std::string> paths;          // what exists below /sys
    std::optional<std::string> flagFile;  // content of /tmp/bluetoothEnabled
    bool flagReadable = true;
    bool flagWritable = true;

    // GPIO
    std::map<unsigned, int> levels;
    std::set<std::string> failingGpio;  // events as below, "export 48"

    // HCI
    bool hciPresent = true;
    bool hciUp = true;
    std::set<std::string> failingHci;  // events as below without their arguments, "hci_open_dev"
    std::uint32_t adapterClass = 0;
    std::set<std::string> interruptible;  // waiting calls that a signal could end

    // Shell
    std::vector<std::optional<std::string>> pipes;  // output, one entry a call; none: popen fails
    int interruptedReads = 0;  // so many reads of such output are interrupted by a signal
    std::function<void(const std::string&)> onShell;  // called for each shell command
    std::function<FILE*(const char*)> onPipe;         // in place of `pipes`: a stream for fclose()

    // Waits
    bool sleeps = false;                 // waits last as long as they should
    bool asksTheBus = false;             // whether a name is there, in place of missingNames
    std::set<std::string> missingNames;  // bus names that do not come
    int notifiedAtWait = -1;             // this sleep on a Condition is cut short, counted from 0
    int interruptedSleeps = 0;           // so many nanosleep calls are interrupted half-way

    // What stands for the folders /tmp and /var/log, where the system log is then really copied and
    // compared. Empty: no command runs, and the snapshot is a file of ours.
    std::string folder;

    // Bus
    bool busMissing = false;  // GIO gets no connection
    bool noReplies = false;   // BlueZ's calls return neither a reply nor an error
    std::function<void(const std::string& method)> onCall;  // to BlueZ
    GObject* standIn = nullptr;  // takes asynchronous calls in place of the connection

    std::vector<int>* listsUsed = nullptr;  // takes the lists that are asked for, in order

    std::string modelName = "Model C100";
    bool echoShell = false;  // shell commands go to standard error, for tests that end a process

    void note(Kind kind, std::string text);
    void note(LogRecord record);
    std::vector<Event> events() const;
    std::vector<LogRecord> log() const;
    void forget();

private:
    mutable std::mutex mutex;
    std::vector<Event> noted;
    std::vector<LogRecord> records;
};

/// The one machine of this process. Never destroyed: the library uses it at the end of the process.
Edges& edges();

/// Replaces std::chrono::steady_clock in the whole process; stopped and advanced by hand.
class Clock {
public:
    static void stop();
    static void advance(std::chrono::nanoseconds by);
    static bool stopped();
    /// While it runs, each reading advances it by so much more.
    static void hurry(std::chrono::nanoseconds perReading);
    /// The number of readings: shows that a loop on the clock runs.
    static std::int64_t reads();
};

/// Records everything from TRACE up that passes the library's logger, instead of printing it.
void captureLog();

}  // namespace corvane::test
