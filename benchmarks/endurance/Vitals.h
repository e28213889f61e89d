#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

/// What this process holds at one moment.
struct Vitals {
    double heap = 0;      // bytes that the allocator has handed out
    double arena = 0;     // bytes that it has taken from the system for that
    double dirty = 0;     // KiB, private memory that was written to
    double resident = 0;  // KiB
    unsigned threads = 0;
    unsigned hciSockets = 0;
    std::map<std::string, unsigned> otherDescriptors;  // by kind
};

Vitals vitalsNow();

/// Judges a run by samples that are taken at moments which ought to be alike.
///
/// The first samples settle what is made once (caches, pools, the bus's threads). The rest must be
/// flat: memory by the slope of a straight line through it, descriptors and threads exactly.
class Trend {
public:
    /// @param length  of the whole run, in whatever its steps are
    explicit Trend(unsigned length);

    /// Takes a sample after that many steps.
    /// @param switchings  how often the radio has been switched on so far
    void sample(unsigned step, unsigned switchings);

    /// What is not flat, one complaint after the other; empty when all is.
    std::string complaints() const;

    /// Cells of a Markdown table: heap, private dirty, resident, HCI sockets, other descriptors,
    /// threads.
    std::string cells() const;

private:
    struct Line {
        double first = 0, last = 0;  // of the straight line
    };
    Line fit(double Vitals::*value) const;

    unsigned length;
    unsigned baseSwitchings = 0, lastSwitchings = 0;
    Vitals base, latest;
    std::string found;
    std::vector<unsigned> at;
    std::vector<Vitals> kept;
};
