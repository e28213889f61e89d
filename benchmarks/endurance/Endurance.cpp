// A host application that runs for long on the virtual board and judges what it holds meanwhile.
// script/endurance runs it; docs/endurance.md says how it judges.
//
// Usage: endurance cycles|requests NUMBER [SEED]
//        endurance scans SECONDS [SEED]
//   Prints a line for each sample and at last a row of a Markdown table; exit status 0 when
//   everything stayed flat.

#include "BluetoothManager.h"

#include "Board.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char logFile[] = "/tmp/endurance.log";  // what the library logs
constexpr int leftOpenOnPurpose = 3;              // HCI sockets of each switching on
constexpr unsigned longestAnswer = 100'000;       // ms; a HID call gives up after 60 s

// The most that may be gained over a run. Heap: less than a block (16 bytes) for each step, and in
// a short run the difference between two looks. Private memory: pages that the allocator already
// holds and touches little by little.
constexpr double heapLimitPerStep = 15;    // bytes
constexpr double heapLimitAtLeast = 1024;  // bytes
constexpr double dirtyLimit = 256;         // KiB

BluetoothManager& manager() { return BluetoothManager::getInstance(); }

std::mt19937 dice;
unsigned upTo(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit)(dice); }

/// The number behind "NAME:" in a file of such lines.
double numberIn(const char* path, const std::string& name) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":", 0) == 0) return std::stod(line.substr(name.size() + 1));
    }
    std::abort();
}

struct Vitals {
    double heap, dirty;  // bytes that the allocator has handed out; KiB
    int threads, descriptors;
};

Vitals vitalsNow() {
    const struct mallinfo2 heap = mallinfo2();
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return {static_cast<double>(heap.uordblks + heap.hblkhd),
            numberIn("/proc/self/smaps_rollup", "Private_Dirty"),
            static_cast<int>(numberIn("/proc/self/status", "Threads")),
            static_cast<int>(std::distance(begin(open), end(open)))};
}

/// Samples from moments that ought to be alike. The first tenth settles what is made once; from
/// then on memory must be flat, and descriptors and threads must stay the same.
class Trend {
public:
    explicit Trend(unsigned length) : warmUp(std::max(2U, length / 10)) { kept.reserve(length); }

    /// @param switchings  how often the radio has been switched on so far
    void sample(unsigned step, int switchings) {
        Vitals now{};
        // A request's thread ends, and a connection closes, some moments later.
        if (kept.empty()) std::this_thread::sleep_for(1s);
        const bool same = board::waitFor(
            [&] {
                now = vitalsNow();
                now.descriptors -= leftOpenOnPurpose * switchings;
                return kept.empty() || (now.threads == kept.front().threads &&
                                        now.descriptors == kept.front().descriptors);
            },
            10'000);
        std::printf("%u\t%.0f\t%.0f\t%d\t%d\n", step, now.heap, now.dirty, now.threads,
                    now.descriptors);
        if (step < warmUp) return;
        if (!same) changed = true;
        if (kept.empty()) first = step;
        last = step;
        kept.push_back(now);
    }

    /// What is not flat; empty when all is.
    std::string complaints() const {
        if (kept.size() < 3) return "too few samples; ";
        std::string all = changed ? "threads or descriptors differ; " : "";
        const double heapLimit = std::max(heapLimitPerStep * (last - first), heapLimitAtLeast);
        if (rise(&Vitals::heap) > heapLimit) all += "the heap grows; ";
        if (rise(&Vitals::dirty) > dirtyLimit) all += "private memory grows; ";
        return all;
    }

    /// Cells of the table: heap, private dirty, descriptors, threads.
    void printCells() const {
        if (kept.empty()) return;
        const Vitals& a = kept.front();
        const Vitals& b = kept.back();
        std::printf("%.1f → %.1f KiB (%+.2f B a step) | %.0f → %.0f KiB | %d → %d | %d → %d",
                    a.heap / 1024, b.heap / 1024, rise(&Vitals::heap) / std::max(1U, last - first),
                    a.dirty, b.dirty, a.descriptors, b.descriptors, a.threads, b.threads);
    }

private:
    /// Twice what the second half holds more than the first on average: the whole of an even rise.
    double rise(double Vitals::*value) const {
        const std::size_t half = kept.size() / 2;
        double sum = 0;
        for (std::size_t i = 0; i < 2 * half; ++i) sum += (i < half ? -1 : 1) * kept[i].*value;
        return half > 0 ? 2 * sum / static_cast<double>(half) : 0;
    }

    unsigned warmUp, first = 0, last = 0;
    std::vector<Vitals> kept;
    bool changed = false;
};

/// A request and how often it was answered.
struct Asked {
    std::shared_ptr<BluetoothRequest> request;
    std::atomic<unsigned> answers{0};

    std::function<void(BluetoothRequestAnswers)> callback() {
        return [this](BluetoothRequestAnswers /*answer*/) { ++answers; };
    }
    bool isOver(unsigned milliseconds) const {
        return board::waitFor([this] { return answers > 0 && !request->isStillRunning(); },
                              milliseconds);
    }
};

bool discover() {
    Asked scan;
    scan.request = std::make_shared<ScanBluetoothRequest>(scan.callback());
    return manager().makeRequest(scan.request) && scan.isOver(longestAnswer) &&
           manager().scanDevicesInfo();
}

std::string cycles(unsigned rounds, Trend& trend) {
    std::string complaints;
    // The first error of all makes GLib's table of error names, which must not count as growth.
    manager().deletePairedDevice("00:00:00:00:00:00");
    for (unsigned round = 1; round <= rounds; ++round) {
        manager().setEnabled(true, false);
        if (const std::string faults = board::adapterFaults(); !faults.empty()) {
            complaints += "round " + std::to_string(round) + ": " + faults;
        }
        manager().setEnabled(false, false);
        trend.sample(round, static_cast<int>(round));
    }
    return complaints;
}

void makeAny(Asked& asked, hwcommon::DBusBluetoothHidProxy* hid) {
    constexpr std::array<const char*, 8> names{"Phone",   "Speaker", "Headphones", "Keyboard",
                                               "Refuser", "Ghost",   "Twin",       "nobody"};
    const std::string name = names.at(upTo(names.size() - 1));
    const unsigned kind = upTo(3);
    if (kind == 0) {
        asked.request = std::make_shared<ScanBluetoothRequest>(asked.callback());
    } else if (kind == 1) {
        asked.request = std::make_shared<ConnectBluetoothRequest>(asked.callback(), hid, name);
    } else if (kind == 2) {
        asked.request = std::make_shared<DisconnectBluetoothRequest>(asked.callback(), hid, name);
    } else {
        asked.request = std::make_shared<WaitBluetoothPairingRequest>(asked.callback(), name);
    }
}

std::string requests(unsigned rounds, Trend& trend) {
    const auto connection = sdbus::createSystemBusConnection();
    hwcommon::DBusBluetoothHidProxy hid(*connection);
    std::vector<Asked> all(rounds);
    manager().setEnabled(true, false);
    for (unsigned round = 1; round <= rounds; ++round) {
        // BlueZ forgets a device that is not paired 30 s after a search.
        if (round % 20 == 1) discover();
        // Pairings are forgotten now and then, so that there is something to pair.
        if (round % 20 == 11) {
            const auto paired = manager().getBluetoothDeviceInfoList(PAIRED_DEVICES);
            for (const auto& device : paired) {
                manager().deletePairedDevice(device.macAddress.c_str());
            }
            board::run(
                "for d in phone speaker headphones keyboard ghost twin1 twin2; do "
                "peers $d forget; done");
            manager().scanDevicesInfo();
        }
        Asked& asked = all[round - 1];
        makeAny(asked, &hid);
        const std::string name = "request " + std::to_string(round);
        if (!manager().makeRequest(asked.request)) return name + " was refused; ";
        // Two of three are cancelled at a random moment, the others when they have had their time:
        // a whole scan takes 10 s, a whole wait 60 s.
        if (!asked.isOver(upTo(2) == 0 ? 3000 : upTo(1000))) manager().cancelRequest();
        if (!asked.isOver(longestAnswer)) return name + " was not answered; ";
        asked.request.reset();
        if (round % 5 == 0) trend.sample(round, 1);
    }
    std::this_thread::sleep_for(2s);
    manager().setEnabled(false, false);
    const bool once =
        std::all_of(all.begin(), all.end(), [](const auto& a) { return a.answers == 1; });
    return once ? "" : "a request was not answered once; ";
}

std::string scans(unsigned seconds, unsigned seed, Trend& trend) {
    manager().setEnabled(true, false);
    // Devices go and come back.
    board::run("timeout " + std::to_string(seconds) + " bash -c 'RANDOM=" + std::to_string(seed) +
               "; all=(phone speaker headphones keyboard refuser ghost twin1 twin2); while :; do "
               "d=${all[RANDOM % 8]}; peers $d vanish; sleep $((RANDOM % 5)); peers $d return; "
               "sleep 1; done' > /dev/null 2>&1 &");
    const auto start = Clock::now();
    unsigned nextSearch = 0;
    for (unsigned now = 0, sampled = 0; now < seconds;) {
        if (now >= nextSearch) {
            nextSearch = now + 40;
            if (!discover()) return "a search failed; ";
        }
        if (!manager().scanDevicesInfo()) return "no lists; ";
        std::this_thread::sleep_for(50ms);
        now = static_cast<unsigned>((Clock::now() - start) / 1s);
        if (now < sampled + 2) continue;
        sampled = now;
        // GDBus lets go of a reply once its message about it has been dispatched.
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
        trend.sample(now, 1);
    }
    manager().setEnabled(false, false);
    return "";
}

int endurance(const std::string& what, unsigned length, unsigned seed) {
    dice.seed(seed);
    std::printf("endurance: %s %u, seed %u\n", what.c_str(), length, seed);
    if (std::freopen(logFile, "w", stderr) == nullptr) return EXIT_FAILURE;
    unlink("/tmp/bluetoothEnabled");
    const auto begun = Clock::now();
    Trend trend(length);
    std::string complaints = what == "cycles"     ? cycles(length, trend)
                             : what == "requests" ? requests(length, trend)
                                                  : scans(length, seed, trend);
    complaints += trend.complaints();
    if (!board::waitFor([] { return board::zombies() == 0; }, 10'000)) complaints += "zombies; ";
    if (!complaints.empty()) {
        std::puts(board::run(std::string("tail -n 50 ") + logFile).c_str());
    }
    std::printf("| %u%s%s, wiring %d, seed %u | %lld s | ", length,
                what == "scans" ? " s of " : " ", what.c_str(), board::wiring(), seed,
                static_cast<long long>((Clock::now() - begun) / 1s));
    trend.printCells();
    std::printf(" | %s |\n", complaints.empty() ? "flat" : complaints.c_str());
    return complaints.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 2 ? argv[1] : "";
    if (argc > 4 || (what != "cycles" && what != "requests" && what != "scans")) {
        std::fputs("usage: endurance cycles|requests|scans NUMBER [SEED]\n", stderr);
        return 2;
    }
    // Without caches in the allocator and in GLib the heap tells to the byte what is held.
    if (std::getenv("G_SLICE") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        setenv("G_SLICE", "always-malloc", 1);
        execv("/proc/self/exe", argv);
    }
    const auto length = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    const unsigned seed = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10))
                                   : std::random_device()();
    const int status = endurance(what, length, seed);
    std::fflush(stdout);
    // After a request the manager's destruction ends in std::terminate(); hosts leave like this.
    std::quick_exit(status);
}
