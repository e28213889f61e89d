// Fills the device lists from a stand-in for bluetoothd with 10 to 5000 devices: by the library, by
// the floor (the same call with the reply dropped) and by what a user would pick instead. Prints
// the rounds' times, the instructions of one listing and the memory at its peak.
//
// Usage: corvane-bench-scan [DEVICES...]
//   Without arguments: 10, 100, 1000 and 5000. valgrind, bluetoothctl and bt-device must be
//   installed.

#include "Measuring.h"
#include "TestBus.h"

#include <gio/gio.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using corvane::bench::sample;
using corvane::test::Child;

namespace {

constexpr unsigned mostRounds = 101;
constexpr std::chrono::seconds timeForRounds{10};  // for each size and group of ways

using Words = std::vector<std::string>;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

template <class Object>
using ObjectPtr = std::unique_ptr<Object, void (*)(gpointer)>;

ObjectPtr<GSubprocess> spawn(const Words& command, int flags) {
    std::vector<const char*> words;
    for (const std::string& word : command) words.push_back(word.c_str());
    words.push_back(nullptr);
    GError* error = nullptr;
    GSubprocess* const process =
        g_subprocess_newv(words.data(), static_cast<GSubprocessFlags>(flags), &error);
    if (process == nullptr) fail(error->message);
    return {process, g_object_unref};
}

/// Runs a program to its end. @return its standard output, or its standard error
std::string outputOf(const Words& command, const char* input, bool errors = false) {
    const auto process = spawn(
        command, G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                     (errors ? G_SUBPROCESS_FLAGS_STDERR_PIPE : G_SUBPROCESS_FLAGS_STDERR_SILENCE));
    char* out = nullptr;
    char* err = nullptr;
    if (g_subprocess_communicate_utf8(process.get(), input, nullptr, &out, &err, nullptr) ==
            FALSE ||
        g_subprocess_get_if_exited(process.get()) == FALSE) {
        fail(command.front() + " did not end by itself");
    }
    std::string text = errors ? err : out;
    g_free(out);
    g_free(err);
    return text;
}

/// One way to list the devices. It stays ready between its rounds.
class Way {
public:
    explicit Way(std::string wayName) : name(std::move(wayName)) {}
    Way(const Way&) = delete;
    Way& operator=(const Way&) = delete;
    virtual ~Way() = default;

    struct Cost {
        std::int64_t time;       // nanoseconds
        std::int64_t processor;  // nanoseconds, of all threads; 0 when it is not known
    };
    /// Lists once.
    virtual Cost list(unsigned devices) = 0;

    const std::string name;
};

/// A program that lists once for each line that it is given (Measuring.h).
class Served : public Way {
public:
    Served(std::string wayName, const Words& command)
        : Way(std::move(wayName)),
          process(spawn(command, G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                     G_SUBPROCESS_FLAGS_STDERR_SILENCE)),
          lines(g_data_input_stream_new(g_subprocess_get_stdout_pipe(process.get())),
                g_object_unref) {}

    /// Lets it end by itself: what it prints last must find the pipe open.
    ~Served() override {
        g_output_stream_close(g_subprocess_get_stdin_pipe(process.get()), nullptr, nullptr);
        g_subprocess_wait(process.get(), nullptr, nullptr);
    }

    Cost list(unsigned devices) override {
        GOutputStream* const input = g_subprocess_get_stdin_pipe(process.get());
        if (g_output_stream_write_all(input, "\n", 1, nullptr, nullptr, nullptr) == FALSE) {
            fail(name + " has ended");
        }
        long long time = 0;
        long long processor = 0;
        unsigned listed = 0;
        // What the manager's making prints goes before.
        for (int fields = 0; fields != 3;) {
            char* const line =
                g_data_input_stream_read_line(lines.get(), nullptr, nullptr, nullptr);
            if (line == nullptr) fail(name + " has ended");
            fields = std::sscanf(line, "%lld %lld %u", &time, &processor, &listed);
            g_free(line);
        }
        if (listed != devices) fail(name + " lists " + std::to_string(listed) + " devices");
        return {time, processor};
    }

private:
    ObjectPtr<GSubprocess> process;
    ObjectPtr<GDataInputStream> lines;
};

/// A command-line tool: its time is that of the whole process.
class Tool : public Way {
public:
    Tool(std::string wayName, Words toolCommand, std::string lineMark)
        : Way(std::move(wayName)), command(std::move(toolCommand)), mark(std::move(lineMark)) {}

    Cost list(unsigned devices) override {
        std::string output;
        const std::int64_t time = corvane::bench::timeOf([&] { output = outputOf(command, ""); });
        unsigned listed = 0;
        for (auto at = output.find(mark); at != std::string::npos; at = output.find(mark, at + 1)) {
            ++listed;
        }
        if (listed != devices) fail(name + " lists " + std::to_string(listed) + " devices");
        return {time, 0};
    }

private:
    Words command;
    std::string mark;  // stands once in the line of each device
};

constexpr std::array<const char*, 6> glibWays{
    "floor", "library", "walk-copying", "walk-borrowing", "object-manager-client", "sdbus-maps"};

using Ways = std::vector<std::unique_ptr<Way>>;

Ways glibAndSdbus() {
    Ways ways;
    for (const char* name : glibWays) {
        ways.push_back(std::make_unique<Served>(name, Words{CORVANE_SCAN_GLIB, name}));
    }
    return ways;
}

/// Those that take long, apart from the others: they leave the bus with thousands of rules to
/// match.
Ways qtAndTools() {
    Ways ways;
    for (const char* name : {"bluezqt", "qt-bluetooth"}) {
        ways.push_back(std::make_unique<Served>(name, Words{CORVANE_SCAN_QT, name}));
    }
    ways.push_back(std::make_unique<Tool>("bluetoothctl", Words{"bluetoothctl", "devices"},
                                          "Device 00:1A:7D:"));
    ways.push_back(std::make_unique<Tool>("bt-device", Words{"bt-device", "-l"}, "(00:1A:7D:"));
    return ways;
}

void measureTimes(const std::string& prefix, unsigned devices, const Ways& ways) {
    const auto end = std::chrono::steady_clock::now() + timeForRounds;
    for (unsigned round = 0; round < mostRounds; ++round) {
        if (round > 0 && std::chrono::steady_clock::now() > end) break;
        // Each round starts elsewhere, so that nobody always follows the same one.
        for (std::size_t i = 0; i < ways.size(); ++i) {
            Way& way = *ways[(i + round) % ways.size()];
            const Way::Cost cost = way.list(devices);
            sample(prefix + way.name + "/time", cost.time);
            if (cost.processor > 0) sample(prefix + way.name + "/processor", cost.processor);
        }
    }
}

/// What callgrind counts in all threads of a process that lists so many times.
std::int64_t instructions(const std::string& way, unsigned rounds) {
    const std::string errors = outputOf(
        {"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", CORVANE_SCAN_GLIB, way},
        std::string(rounds, '\n').c_str(), true);
    std::smatch match;
    if (!std::regex_search(errors, match, std::regex("Collected : (\\d+)"))) fail(errors);
    return std::stoll(match[1]);
}

/// One listing, by the difference between four and two, so that start and end do not count, nor the
/// first time, when GLib's allocators grow. What those do differs between runs, so the two ways
/// that make the ratio are run three times.
void measureInstructions(unsigned devices, const std::string& prefix) {
    const bool large = devices > 1000;  // half a minute for a run
    for (const char* way : glibWays) {
        const bool ratio = std::strcmp(way, "floor") == 0 || std::strcmp(way, "library") == 0;
        if (!ratio && devices != 1000) continue;
        for (int run = 0; run < (ratio && !large ? 3 : 1); ++run) {
            sample(prefix + way + "/instructions",
                   (instructions(way, 4) - instructions(way, 2)) / 2);
        }
    }
}

void measure(unsigned devices) {
    const Child bluez({CORVANE_BENCH_BLUEZ, std::to_string(devices)});
    const std::string prefix = "scan/" + std::to_string(devices) + '/';
    std::fprintf(stderr, "%u devices: time\n", devices);
    measureTimes(prefix, devices, glibAndSdbus());
    measureTimes(prefix, devices, qtAndTools());
    std::fprintf(stderr, "%u devices: instructions\n", devices);
    measureInstructions(devices, prefix);
    // GLib's own allocator would hide what is given back.
    std::fputs(outputOf({"env", "G_SLICE=always-malloc", CORVANE_SCAN_MEMORY}, "").c_str(), stdout);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const corvane::test::PrivateBus bus;
        std::vector<unsigned long> sizes{10, 100, 1000, 5000};
        if (argc > 1) sizes.clear();
        for (int i = 1; i < argc; ++i) sizes.push_back(std::stoul(argv[i]));
        for (const unsigned long devices : sizes) measure(static_cast<unsigned>(devices));
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "corvane-bench-scan: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
