// A host application that runs for long on the virtual board and judges what it holds meanwhile.
// script/endurance runs it; docs/endurance.md says how it judges.
//
// Usage: endurance cycles|requests NUMBER [SEED]
//        endurance scans SECONDS [SEED]
//   Prints a line for each sample and at last a row of a Markdown table; exit status 0 when
//   everything stayed flat.

#include "BluetoothManager.h"

#include "Board.h"
#include "Requests.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int leftOpenOnPurpose = 3;  // HCI sockets of each switching on

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

/// Samples from moments that ought to be alike: memory must be flat, descriptors and threads must
/// stay the same.
class Trend {
public:
    /// @param switchings  how often the radio has been switched on so far
    void sample(unsigned step, unsigned switchings) {
        Vitals now{};
        // A request's thread ends, and a connection closes, some moments later.
        if (kept.empty()) std::this_thread::sleep_for(1s);
        const bool same = board::waitFor(
            [&] {
                now = vitalsNow();
                now.descriptors -= leftOpenOnPurpose * static_cast<int>(switchings);
                return kept.empty() || (now.threads == kept.front().threads &&
                                        now.descriptors == kept.front().descriptors);
            },
            10'000);
        changed = changed || !same;
        if (kept.empty()) first = step;
        steps = step - first;
        kept.push_back(now);
        std::printf("%u\t%.0f\t%.0f\t%d\t%d\n", step, now.heap, now.dirty, now.threads,
                    now.descriptors);
    }

    /// What is not flat; empty when all is.
    std::string complaints() const {
        if (kept.size() < 3) return "too few samples; ";
        std::string all = changed ? "threads or descriptors differ; " : "";
        const double heapLimit = std::max(heapLimitPerStep * steps, heapLimitAtLeast);
        if (rise(&Vitals::heap) > heapLimit) all += "the heap grows; ";
        if (rise(&Vitals::dirty) > dirtyLimit) all += "private memory grows; ";
        return all;
    }

    /// Cells of the table: heap, private dirty, descriptors, threads.
    void printCells() const {
        const Vitals a = kept.empty() ? Vitals{} : kept.front();
        const Vitals b = kept.empty() ? Vitals{} : kept.back();
        std::printf("%.1f → %.1f KiB (%+.2f B a step) | %.0f → %.0f KiB | %d → %d | %d → %d",
                    a.heap / 1024, b.heap / 1024, rise(&Vitals::heap) / std::max(1U, steps),
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

    unsigned first = 0, steps = 0;
    std::vector<Vitals> kept;
    bool changed = false;
};

bool discover() {
    return Started::make<ScanBluetoothRequest>().answer() == REQUEST_SUCCESS &&
           manager().scanDevicesInfo();
}

std::string offAndOn(unsigned round) {
    // The first error of all makes GLib's table of error names, which must not count as growth.
    if (round == 1) manager().deletePairedDevice("00:00:00:00:00:00");
    manager().setEnabled(true, false);
    const std::string faults = board::adapterFaults();
    manager().setEnabled(false, false);
    return faults;
}

Started anyRequest() {
    static const auto connection = sdbus::createSystemBusConnection();
    static hwcommon::DBusBluetoothHidProxy hid(*connection);
    constexpr std::array<const char*, 8> names{"Phone",   "Speaker", "Headphones", "Keyboard",
                                               "Refuser", "Ghost",   "Twin",       "nobody"};
    const std::string name = names.at(upTo(names.size() - 1));
    switch (upTo(3)) {
        case 0:
            return Started::make<ScanBluetoothRequest>();
        case 1:
            return Started::make<ConnectBluetoothRequest>(&hid, name);
        case 2:
            return Started::make<DisconnectBluetoothRequest>(&hid, name);
        default:
            return Started::make<WaitBluetoothPairingRequest>(name);
    }
}

std::string askAndCancel(unsigned round) {
    // BlueZ forgets a device that is not paired 30 s after a search.
    if (round % 20 == 1) discover();
    // Pairings are forgotten now and then, so that there is something to pair.
    if (round % 20 == 11) {
        for (const auto& device : manager().getBluetoothDeviceInfoList(PAIRED_DEVICES)) {
            manager().deletePairedDevice(device.macAddress.c_str());
        }
        board::run(
            "for d in phone speaker headphones keyboard ghost twin1 twin2; do "
            "peers $d forget; done");
        manager().scanDevicesInfo();
    }
    Started request = anyRequest();
    // Two of three are cancelled at a random moment, the others when they have had their time: a
    // whole scan takes 10 s, a whole wait 60 s.
    if (!request.isAnsweredIn(upTo(2) == 0 ? 3000 : upTo(1000))) manager().cancelRequest();
    // A second answer would end the process.
    return request.answer() < 0 ? "refused or not answered; " : "";
}

std::string scanForASecond(unsigned second) {
    if (second % 40 == 1 && !discover()) return "a search failed; ";
    for (const auto end = Clock::now() + 1s; Clock::now() < end;) {
        if (!manager().scanDevicesInfo()) return "no lists; ";
        std::this_thread::sleep_for(50ms);
    }
    // GDBus lets go of a reply once its message about it has been dispatched.
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    return "";
}

/// Devices go and come back meanwhile.
void changeDevices(unsigned seconds, unsigned seed) {
    board::run("timeout " + std::to_string(seconds) + " bash -c 'RANDOM=" + std::to_string(seed) +
               "; all=(phone speaker headphones keyboard refuser ghost twin1 twin2); while :; do "
               "d=${all[RANDOM % 8]}; peers $d vanish; sleep $((RANDOM % 5)); peers $d return; "
               "sleep 1; done' > /dev/null 2>&1 &");
}

int endurance(const std::string& what, unsigned length, unsigned seed) {
    dice.seed(seed);
    std::printf("endurance: %s %u, seed %u\n", what.c_str(), length, seed);
    const auto begun = Clock::now();
    const bool cycles = what == "cycles";
    const auto step = cycles ? offAndOn : what == "requests" ? askAndCancel : scanForASecond;
    const unsigned stepsPerSample = cycles ? 1 : what == "requests" ? 5 : 2;
    if (!cycles) manager().setEnabled(true, false);
    if (what == "scans") changeDevices(length, seed);
    // What is made once settles in the first tenth.
    const unsigned settled = std::max(2U, length / 10);
    Trend trend;
    std::string complaints;
    for (unsigned round = 1; round <= length && complaints.empty(); ++round) {
        const std::string complaint = step(round);
        if (!complaint.empty()) complaints = "step " + std::to_string(round) + ": " + complaint;
        if (round >= settled && round % stepsPerSample == 0)
            trend.sample(round, cycles ? round : 1);
    }
    manager().setEnabled(false, false);
    complaints += trend.complaints();
    if (!board::waitFor([] { return board::zombies() == 0; }, 10'000)) complaints += "zombies; ";
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
    const auto length = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    const unsigned seed = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10))
                                   : std::random_device()();
    const int status = endurance(what, length, seed);
    std::fflush(stdout);
    // After a request the manager's destruction ends in std::terminate(); hosts leave like this.
    std::quick_exit(status);
}
