// A host application that runs for long on the virtual board and judges what it holds meanwhile:
// off and on, requests that are cancelled at random, scans of a device list that changes.
// script/endurance runs it.
//
// Prints one row of a Markdown table; exit status 0 when everything stayed flat.

#include "BluetoothManager.h"

#include "Board.h"
#include "LogAppender.h"
#include "Vitals.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>
#include <sdbus-c++/sdbus-c++.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char logFile[] = "/tmp/endurance.log";  // what the library logs
constexpr auto longestAnswer = 100s;              // a HID call gives up after 60 s

BluetoothManager& manager() { return BluetoothManager::getInstance(); }

/// Counts ERROR records.
class Errors : public log4cplus::Appender {
public:
    ~Errors() override { destructorImpl(); }
    void close() override { closed = true; }
    std::atomic<unsigned> count{0};
    std::atomic<unsigned> tooEarly{0};  // of objects that BlueZ did not have yet

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        if (event.getLogLevel() < log4cplus::ERROR_LOG_LEVEL) return;
        ++count;
        if (event.getMessage().find("UnknownObject") != std::string::npos) ++tooEarly;
    }
};

/// What a run found wrong beside what its vitals show, and what its row says of it.
struct Result {
    std::string complaints;
    std::string remarks;
};

class Dice {
public:
    explicit Dice(unsigned seed) : engine(seed) {}
    unsigned upTo(unsigned limit) {
        return std::uniform_int_distribution<unsigned>(0, limit)(engine);
    }
    bool oneIn(unsigned number) { return upTo(number - 1) == 0; }
    template <class Container>
    const auto& oneOf(const Container& choice) {
        return choice[upTo(static_cast<unsigned>(choice.size()) - 1)];
    }

private:
    std::mt19937 engine;
};

/// A request and how often it was answered.
struct Asked {
    std::shared_ptr<BluetoothRequest> request;
    std::atomic<unsigned> answers{0};
    std::atomic<int> last{-1};

    std::function<void(BluetoothRequestAnswers)> callback() {
        return [this](BluetoothRequestAnswers answer) {
            last = answer;
            ++answers;
        };
    }

    bool isOver(milliseconds limit) const {
        return board::waitFor([this] { return answers > 0 && !request->isStillRunning(); },
                              static_cast<unsigned>(limit.count()));
    }
};

/// Looks for devices and fills the lists.
bool discover() {
    Asked scan;
    scan.request = std::make_shared<ScanBluetoothRequest>(scan.callback());
    return manager().makeRequest(scan.request) && scan.isOver(60s) &&
           scan.last == REQUEST_SUCCESS && manager().scanDevicesInfo();
}

// The ERROR records do not judge: BlueZ makes the adapter pairable itself when the agent registers,
// and tells who sets it at that moment "Busy".
Result cycles(unsigned rounds, Trend& trend, const Errors& errors) {
    Result result;
    // The first error of all makes GLib's table of error names, which must not count as growth.
    manager().deletePairedDevice("00:00:00:00:00:00");
    const unsigned before = errors.count;
    for (unsigned round = 1; round <= rounds; ++round) {
        manager().setEnabled(true, false);
        if (const std::string faults = board::adapterFaults(); !faults.empty()) {
            result.complaints += "round " + std::to_string(round) + ": " + faults;
        }
        manager().setEnabled(false, false);
        trend.sample(round, round);
    }
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    if (errors.tooEarly != 0) {
        result.complaints += std::to_string(errors.tooEarly) + " calls on objects not there yet; ";
    }
    result.remarks = std::to_string(errors.count - before) + " ERROR records, limit of " +
                     std::to_string(descriptors.rlim_cur) + " descriptors";
    return result;
}

/// Starts a request of any kind for any device.
void start(Asked& asked, Dice& dice, hwcommon::DBusBluetoothHidProxy* hid) {
    static const std::vector<std::string> names{"Phone",   "Speaker", "Headphones", "Keyboard",
                                                "Refuser", "Ghost",   "Twin",       "nobody"};
    const std::string name = dice.oneOf(names);
    switch (dice.upTo(3)) {
        case 0:
            asked.request = std::make_shared<ScanBluetoothRequest>(asked.callback());
            break;
        case 1:
            asked.request = std::make_shared<ConnectBluetoothRequest>(asked.callback(), hid, name);
            break;
        case 2:
            asked.request =
                std::make_shared<DisconnectBluetoothRequest>(asked.callback(), hid, name);
            break;
        default:
            asked.request = std::make_shared<WaitBluetoothPairingRequest>(asked.callback(), name);
    }
}

Result requests(unsigned rounds, Trend& trend, Dice& dice) {
    const auto connection = sdbus::createSystemBusConnection();
    hwcommon::DBusBluetoothHidProxy hid(*connection);
    std::vector<Asked> all(rounds);
    std::array<unsigned, 6> answers{};
    unsigned cancelled = 0;
    Result result;
    manager().setEnabled(true, false);
    for (unsigned round = 1; round <= rounds; ++round) {
        // BlueZ forgets a device that is not paired 30 s after a search.
        if (round % 20 == 1) discover();
        // Who has paired is forgotten now and then, so that there is something to pair.
        if (round % 20 == 11 && manager().getBluetoothDeviceListSize(PAIRED_DEVICES) > 0) {
            const auto paired = manager().getBluetoothDeviceInfoList(PAIRED_DEVICES);
            manager().deletePairedDevice(dice.oneOf(paired).macAddress.c_str());
            for (const char* device :
                 {"phone", "speaker", "headphones", "keyboard", "ghost", "twin1", "twin2"})
                board::run(std::string("peers ") + device + " forget");
            manager().scanDevicesInfo();
        }
        Asked& asked = all[round - 1];
        start(asked, dice, &hid);
        if (!manager().makeRequest(asked.request)) {
            result.complaints = "request " + std::to_string(round) + " was refused; ";
            break;
        }
        // Two of three are cancelled at a random moment, the others when they have taken their
        // time; a whole scan and a whole wait would take 10 and 60 s.
        const milliseconds patience(dice.oneIn(3) ? 3000 : dice.upTo(1000));
        if (!asked.isOver(patience)) {
            ++cancelled;
            manager().cancelRequest();
        }
        if (!asked.isOver(longestAnswer)) {
            result.complaints =
                "request " + std::to_string(round) + " (seed above) was not answered; ";
            break;
        }
        ++answers.at(static_cast<std::size_t>(asked.last.load()));
        asked.request.reset();
        if (round % 5 == 0) trend.sample(round, 1);
    }
    std::this_thread::sleep_for(2s);
    for (const Asked& asked : all) {
        if (result.complaints.empty() && asked.answers != 1)
            result.complaints = "a request was not answered once; ";
    }
    result.remarks = std::to_string(cancelled) + " cancelled; answers 0 to 5:";
    for (const unsigned number : answers) result.remarks += " " + std::to_string(number);
    manager().setEnabled(false, false);
    return result;
}

/// Another process that lets devices go and come back, as long as this one lives.
class Changes {
public:
    explicit Changes(unsigned seed)
        : shared(static_cast<Counts*>(mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (shared == MAP_FAILED) throw std::runtime_error("no shared memory");
        child = fork();
        if (child != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Dice dice(seed);
        std::array<bool, 8> away{};
        constexpr std::array<const char*, 8> devices{"phone",   "speaker", "headphones", "keyboard",
                                                     "refuser", "ghost",   "twin1",      "twin2"};
        for (;;) {
            std::this_thread::sleep_for(milliseconds(500 + dice.upTo(2500)));
            const unsigned device = dice.upTo(7);
            away.at(device) = !away.at(device);
            const std::string command = std::string("peers ") + devices.at(device) +
                                        (away.at(device) ? " vanish" : " return") + " > /dev/null";
            ++(std::system(command.c_str()) == 0 ? shared->made : shared->failed);
        }
    }
    ~Changes() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;

    unsigned made() const { return shared->made; }
    unsigned failed() const { return shared->failed; }

private:
    struct Counts {
        std::atomic<unsigned> made, failed;
    };
    Counts* shared;
    pid_t child;
};

/// Pairs a device that is there, or forgets one that has paired. @return the ERROR records that
/// this made
unsigned changePairings(Dice& dice, const Errors& errors) {
    const unsigned before = errors.count;
    const auto known = manager().getBluetoothDeviceInfoList(ALL_DEVICES);
    if (known.empty()) return 0;
    const auto& device = dice.oneOf(known);
    if (!manager().searchForDevicesName(PAIRED_DEVICES, device.name)) {
        manager().pairDevice(device.macAddress.c_str());
    } else {
        manager().deletePairedDevice(device.macAddress.c_str());
        std::string key = device.name;
        key[0] = static_cast<char>(std::tolower(key[0]));
        board::run("peers " + key + " forget");
    }
    return errors.count - before;
}

Result scans(std::chrono::seconds time, Trend& trend, Dice& dice, const Errors& errors,
             const Changes& changes) {
    const auto start = Clock::now();
    const auto end = start + time;
    auto nextSearch = start;
    auto nextPairing = nextSearch + 15s;
    auto nextSample = nextSearch + 2s;
    unsigned lists = 0, searches = 0, expectedErrors = 0, least = ~0U, most = 0;
    Result result;
    manager().setEnabled(true, false);
    while (Clock::now() < end && result.complaints.empty()) {
        if (Clock::now() >= nextSearch) {
            nextSearch = Clock::now() + 40s;
            ++searches;
            if (!discover()) result.complaints = "a search failed; ";
        }
        if (Clock::now() >= nextPairing) {
            nextPairing = Clock::now() + 20s;
            expectedErrors += changePairings(dice, errors);
        }
        if (!manager().scanDevicesInfo()) result.complaints = "no lists; ";
        const unsigned size = manager().getBluetoothDeviceListSize(ALL_DEVICES);
        least = std::min(least, size);
        most = std::max(most, size);
        ++lists;
        if (Clock::now() >= nextSample) {
            nextSample = Clock::now() + 2s;
            // GDBus lets go of a reply once its message about it has been dispatched.
            std::this_thread::sleep_for(50ms);
            while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
            }
            trend.sample(static_cast<unsigned>((Clock::now() - start) / 1s), 1);
        }
        std::this_thread::sleep_for(50ms);
    }
    if (errors.count != expectedErrors)
        result.complaints +=
            std::to_string(errors.count - expectedErrors) + " ERROR records of the scans; ";
    result.remarks = std::to_string(lists) + " scans, " + std::to_string(searches) + " searches, " +
                     std::to_string(changes.made()) + " devices gone or back (" +
                     std::to_string(changes.failed()) + " would not), " + std::to_string(least) +
                     " to " + std::to_string(most) + " listed";
    manager().setEnabled(false, false);
    return result;
}

int endurance(const std::string& what, unsigned length, unsigned seed) {
    const std::unique_ptr<Changes> changes(what == "scans" ? new Changes(seed + 1) : nullptr);
    std::cout << "endurance: " << what << " " << length << ", seed " << seed << std::endl;
    if (std::freopen(logFile, "w", stderr) == nullptr) throw std::runtime_error(logFile);
    auto* const errors = new Errors;  // owned by the logger
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.addAppender(log4cplus::SharedAppenderPtr(errors));
    unlink("/tmp/bluetoothEnabled");
    Dice dice(seed);
    const auto begun = Clock::now();
    Trend trend(length);
    Result result;
    if (what == "cycles") {
        result = cycles(length, trend, *errors);
    } else if (what == "requests") {
        result = requests(length, trend, dice);
    } else {
        result = scans(std::chrono::seconds(length), trend, dice, *errors, *changes);
    }
    result.complaints += trend.complaints();
    if (!board::waitFor([] { return board::zombies() == 0; }, 5000)) {
        result.complaints += std::to_string(board::zombies()) + " zombies; ";
    }
    if (!result.complaints.empty()) std::cout << board::run(std::string("tail -50 ") + logFile);
    std::cout << "| " << length << (what == "scans" ? " s of scans" : " " + what) << ", wiring "
              << board::wiring() << ", seed " << seed << " | " << (Clock::now() - begun) / 1s
              << " s | " << trend.cells() << " | " << result.remarks << " | "
              << (result.complaints.empty() ? "flat" : result.complaints) << " |" << std::endl;
    return result.complaints.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 2 ? argv[1] : "";
    if (argc > 4 || (what != "cycles" && what != "requests" && what != "scans")) {
        std::cerr << "usage: endurance cycles|requests NUMBER [SEED]\n"
                     "       endurance scans SECONDS [SEED]\n";
        return 2;
    }
    // What the allocator and GLib keep for the next request counts as handed out: without it the
    // heap tells byte for byte what is held.
    if (std::getenv("G_SLICE") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        setenv("G_SLICE", "always-malloc", 1);
        execv("/proc/self/exe", argv);
    }
    int status = EXIT_FAILURE;
    try {
        const unsigned seed =
            argc > 3 ? static_cast<unsigned>(std::stoul(argv[3])) : std::random_device()();
        status = endurance(what, static_cast<unsigned>(std::stoul(argv[2])), seed);
    } catch (const std::exception& error) {
        std::cout << "endurance: " << error.what() << std::endl;
    }
    // After a request the manager's destruction ends in std::terminate(); hosts leave like this.
    std::quick_exit(status);
}
