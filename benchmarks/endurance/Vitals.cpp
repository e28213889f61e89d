#include "Vitals.h"

#include "Board.h"

#include <bluetooth/bluetooth.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <malloc.h>
#include <sys/socket.h>

namespace fs = std::filesystem;

namespace {

// The raw descriptors of the three controller settings, for each switching on (BluetoothManager.h).
constexpr unsigned leftOpenOnPurpose = 3;

// The first tenth, and two at least, settle what is made once.
constexpr unsigned warmUp(unsigned length) { return std::max(2U, length / 10); }

// How much may rise over the whole run. Of what is handed out, less than a block for each step,
// which is 16 bytes at least on this machine; a short run gets what one look differs from the next.
// What the allocator takes from the system it takes in steps of 132 KiB; of those pages the ones
// that were never used are touched little by little, without more being held.
constexpr double heapLimitPerStep = 15;    // bytes
constexpr double heapLimitAtLeast = 1024;  // bytes
constexpr double arenaLimit = 132 * 1024;  // bytes
constexpr double dirtyLimit = 256;         // KiB

/// The number behind "NAME:" in a file of such lines, in the file's unit.
double numberIn(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":", 0) == 0) return std::stod(line.substr(name.size() + 1));
    }
    throw std::runtime_error(path + " has no " + name);
}

unsigned threadsNow() { return static_cast<unsigned>(numberIn("/proc/self/status", "Threads")); }

std::string kindOf(const fs::path& descriptor) {
    const std::string target = fs::read_symlink(descriptor);
    if (target.rfind("socket:", 0) != 0) return target.substr(0, target.find('['));
    const int number = std::stoi(descriptor.filename());
    int domain = 0;
    int protocol = 0;
    socklen_t size = sizeof domain;
    getsockopt(number, SOL_SOCKET, SO_DOMAIN, &domain, &size);
    getsockopt(number, SOL_SOCKET, SO_PROTOCOL, &protocol, &size);
    if (domain == AF_BLUETOOTH && protocol == BTPROTO_HCI) return "HCI";
    return "socket of family " + std::to_string(domain);
}

std::string text(const std::map<std::string, unsigned>& descriptors) {
    std::string all;
    for (const auto& [kind, number] : descriptors) all += " " + std::to_string(number) + "x" + kind;
    return all;
}

unsigned sum(const std::map<std::string, unsigned>& descriptors) {
    unsigned all = 0;
    for (const auto& [kind, number] : descriptors) all += number;
    return all;
}

}  // namespace

Vitals vitalsNow() {
    Vitals vitals;
    const struct mallinfo2 heap = mallinfo2();
    vitals.heap = static_cast<double>(heap.uordblks + heap.hblkhd);
    vitals.arena = static_cast<double>(heap.arena + heap.hblkhd);
    vitals.dirty = numberIn("/proc/self/smaps_rollup", "Private_Dirty");
    vitals.resident = numberIn("/proc/self/status", "VmRSS");
    vitals.threads = threadsNow();
    std::vector<fs::path> descriptors;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd"))
        descriptors.push_back(entry.path());
    for (const fs::path& descriptor : descriptors) {
        if (!fs::is_symlink(descriptor)) continue;  // that of the look itself
        const std::string kind = kindOf(descriptor);
        if (kind == "HCI") {
            ++vitals.hciSockets;
        } else {
            ++vitals.otherDescriptors[kind];
        }
    }
    return vitals;
}

Trend::Trend(unsigned wholeLength) : length(wholeLength) {
    kept.reserve(length);
    at.reserve(length);
    std::cout << "step\theap\tarena\tdirty\tresident\tthreads\thci\tothers\n";
}

void Trend::sample(unsigned step, unsigned switchings) {
    // A request's thread ends some moments after its answer.
    board::waitFor([this] { return kept.empty() || threadsNow() == base.threads; }, 2000);
    latest = vitalsNow();
    lastSwitchings = switchings;
    std::cout << step << '\t' << static_cast<long>(latest.heap) << '\t'
              << static_cast<long>(latest.arena) << '\t' << latest.dirty << '\t' << latest.resident
              << '\t' << latest.threads << '\t' << latest.hciSockets << '\t'
              << text(latest.otherDescriptors) << std::endl;
    if (step < warmUp(length)) return;
    if (kept.empty()) {
        base = latest;
        baseSwitchings = switchings;
    }
    const unsigned hciSockets = base.hciSockets + leftOpenOnPurpose * (switchings - baseSwitchings);
    std::ostringstream wrong;
    if (latest.hciSockets != hciSockets)
        wrong << latest.hciSockets << " HCI sockets, not " << hciSockets << "; ";
    if (latest.otherDescriptors != base.otherDescriptors)
        wrong << "open:" << text(latest.otherDescriptors) << ", not" << text(base.otherDescriptors)
              << "; ";
    if (latest.threads != base.threads)
        wrong << latest.threads << " threads, not " << base.threads << "; ";
    if (found.empty() && !wrong.str().empty())
        found = "after step " + std::to_string(step) + ": " + wrong.str();
    // Of what is kept only the numbers are of use; the map would weigh on the heap that is
    // measured.
    Vitals numbers = latest;
    numbers.otherDescriptors.clear();
    kept.push_back(numbers);
    at.push_back(step);
}

Trend::Line Trend::fit(double Vitals::*value) const {
    const double count = static_cast<double>(kept.size());
    double meanX = 0, meanY = 0, xx = 0, xy = 0;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        meanX += at[i] / count;
        meanY += kept[i].*value / count;
    }
    for (std::size_t i = 0; i < kept.size(); ++i) {
        xx += (at[i] - meanX) * (at[i] - meanX);
        xy += (at[i] - meanX) * (kept[i].*value - meanY);
    }
    const double slope = xx > 0 ? xy / xx : 0;
    return {meanY + slope * (at.front() - meanX), meanY + slope * (at.back() - meanX)};
}

std::string Trend::complaints() const {
    if (kept.size() < 3) return "too few samples; ";
    std::string all = found;
    const Line heap = fit(&Vitals::heap);
    const Line dirty = fit(&Vitals::dirty);
    const double heapLimit =
        std::max(heapLimitPerStep * (at.back() - at.front()), heapLimitAtLeast);
    if (heap.last - heap.first > heapLimit) all += "the heap grows; ";
    if (latest.arena - base.arena > arenaLimit) all += "the heap takes more and more; ";
    if (dirty.last - dirty.first > dirtyLimit) all += "private memory grows; ";
    return all;
}

std::string Trend::cells() const {
    const Line heap = fit(&Vitals::heap);
    const Line dirty = fit(&Vitals::dirty);
    const Line resident = fit(&Vitals::resident);
    const unsigned span = at.back() - at.front();
    char cells[400];
    std::snprintf(cells, sizeof cells,
                  "%.1f → %.1f KiB (%+.2f B each) | %.0f → %.0f KiB | %.0f → %.0f KiB | %.0f → "
                  "%.0f KiB | %u → %u "
                  "(%u x %u) | %u → %u | "
                  "%u → %u",
                  heap.first / 1024, heap.last / 1024,
                  span > 0 ? (heap.last - heap.first) / span : 0, base.arena / 1024,
                  latest.arena / 1024, dirty.first, dirty.last, resident.first, resident.last,
                  base.hciSockets, latest.hciSockets, leftOpenOnPurpose,
                  lastSwitchings - baseSwitchings, sum(base.otherDescriptors),
                  sum(latest.otherDescriptors), base.threads, latest.threads);
    return cells;
}
