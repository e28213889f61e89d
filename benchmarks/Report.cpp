// Makes one table, or one JSON object, of the samples that the measuring programs print.
//
// Usage: corvane-bench-report [--json] FILE...
//   A file holds lines "NAME VALUE"; several values of one name are rounds, of which the median
//   counts. Rows whose samples are missing are left out.

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

using Value = std::optional<double>;

class Samples {
public:
    void read(const std::string& file) {
        std::ifstream stream(file);
        if (!stream) {
            std::fprintf(stderr, "corvane-bench-report: cannot read %s\n", file.c_str());
            std::exit(EXIT_FAILURE);
        }
        for (std::string line; std::getline(stream, line);) {
            std::istringstream words(line);
            std::string name;
            double value = 0;
            if (words >> name >> value && name.find('/') != std::string::npos) {
                values[name].push_back(value);
            }
        }
    }

    Value median(const std::string& name) const {
        const auto found = values.find(name);
        if (found == values.end()) return {};
        std::vector<double> sorted = found->second;
        std::sort(sorted.begin(), sorted.end());
        const std::size_t middle = sorted.size() / 2;
        return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
    }

    /// The medians' sum, difference or quotient.
    template <class Operation>
    Value combine(const std::string& first, const std::string& second,
                  const Operation& operation) const {
        const Value a = median(first);
        const Value b = median(second);
        if (!a || !b) return {};
        return operation(*a, *b);
    }

    Value ratio(const std::string& first, const std::string& second) const {
        return combine(first, second, [](double a, double b) { return a / b; });
    }

    Value scaled(const std::string& name, double factor) const {
        Value value = median(name);
        if (value) *value *= factor;
        return value;
    }

    /// The least and greatest value of names that start so.
    std::pair<Value, Value> range(const std::string& prefix) const {
        std::pair<Value, Value> found;
        for (auto entry = values.lower_bound(prefix);
             entry != values.end() && entry->first.rfind(prefix, 0) == 0; ++entry) {
            for (const double value : entry->second) {
                found.first = std::min(found.first.value_or(value), value);
                found.second = std::max(found.second.value_or(value), value);
            }
        }
        return found;
    }

private:
    std::map<std::string, std::vector<double>> values;
};

/// A line of the table: one or more values of one kind, all held to one limit.
struct Row {
    std::string what;
    std::string unit;
    int digits;
    std::optional<double> limit;                        // at most so much
    std::vector<std::pair<std::string, Value>> values;  // by their JSON keys
};

constexpr std::array<const char*, 4> sizes{"10", "100", "1000", "5000"};

std::string at(const std::string& size, const std::string& way, const std::string& what) {
    return "scan/" + size + '/' + way + '/' + what;
}

/// The same ratio to the floor for every number of devices.
Row overFloor(const Samples& samples, std::string text, const std::string& way,
              const std::string& what, const std::string& key) {
    Row row{std::move(text), "×", 2, {}, {}};
    for (const char* size : sizes) {
        row.values.emplace_back(key + '_' + size,
                                samples.ratio(at(size, way, what), at(size, "floor", what)));
    }
    return row;
}

/// The library against the fastest of others; above 1 one of them is ahead.
Value overBest(const Samples& samples, const std::vector<const char*>& others,
               const std::string& what) {
    Value worst;
    for (const char* other : others) {
        const Value ratio = samples.ratio(at("1000", "library", what), at("1000", other, what));
        if (ratio) worst = std::max(worst.value_or(*ratio), *ratio);
    }
    return worst;
}

std::vector<Row> scanRows(const Samples& samples) {
    const auto instructions = [&](const std::string& way, const std::string& size) {
        return samples.ratio(at(size, way, "instructions"), at(size, "floor", "instructions"));
    };
    const auto wall = [&](const std::string& size) {
        return samples.ratio(at(size, "library", "time"), at(size, "floor", "time"));
    };
    std::vector<Row> rows{
        {"scan of 1000 devices, instructions, over the floor",
         "×",
         3,
         1.15,
         {{"scan_over_floor_1000", instructions("library", "1000")}}},
        {"… 10, 100, 5000 devices",
         "×",
         3,
         {},
         {{"scan_over_floor_10", instructions("library", "10")},
          {"scan_over_floor_100", instructions("library", "100")},
          {"scan_over_floor_5000", instructions("library", "5000")}}},
        {"scan of 1000 devices, wall time, over the floor",
         "×",
         2,
         1.25,
         {{"scan_wall_over_floor_1000", wall("1000")}}},
        {"… 10, 100, 5000 devices",
         "×",
         2,
         {},
         {{"scan_wall_over_floor_10", wall("10")},
          {"scan_wall_over_floor_100", wall("100")},
          {"scan_wall_over_floor_5000", wall("5000")}}},
        {"the floor, wall time: 10, 100, 1000, 5000 devices", "ms", 2, {}, {}},
        {"linear: instructions a device at 5000 over those at 1000", "×", 3, 1.05, {}},
        {"over the best GLib peer at 1000, instructions",
         "×",
         2,
         1.0,
         {{"scan_over_best_glib_peer_1000",
           overBest(samples, {"walk-copying", "walk-borrowing", "object-manager-client"},
                    "instructions")}}},
        {"over the best GLib or Qt peer at 1000, wall time",
         "×",
         2,
         1.0,
         {{"scan_wall_over_best_peer_1000",
           overBest(samples,
                    {"walk-copying", "walk-borrowing", "object-manager-client", "bluezqt",
                     "qt-bluetooth"},
                    "time")}}},
        {"heap above the reply at its peak, 10, 100, 1000, 5000 devices",
         "bytes a device",
         0,
         300,
         {}},
    };
    for (const char* size : sizes) {
        rows[4].values.emplace_back(std::string("scan_floor_ms_") + size,
                                    samples.scaled(at(size, "floor", "time"), 1e-6));
        rows.back().values.emplace_back(std::string("scan_peak_bytes_") + size,
                                        samples.median(at(size, "library", "peak-bytes")));
    }
    if (const Value grown = samples.ratio(at("5000", "library", "instructions"),
                                          at("1000", "library", "instructions"))) {
        rows[5].values.emplace_back("scan_linearity_5000", *grown / 5);
    }
    rows.push_back(overFloor(samples, "processor time over the floor: the library", "library",
                             "processor", "scan_processor_over_floor"));
    const std::pair<const char*, const char*> peers[] = {
        {"walk-copying", "GVariantIter, copying"},
        {"walk-borrowing", "GVariantIter with &"},
        {"object-manager-client", "GDBusObjectManagerClient"},
        {"sdbus-maps", "sdbus-c++ into maps"},
        {"bluezqt", "BluezQt"},
        {"qt-bluetooth", "Qt Bluetooth"},
        {"bluetoothctl", "bluetoothctl devices (whole process)"},
        {"bt-device", "bt-device -l (whole process)"}};
    for (const auto& [way, text] : peers) {
        std::string key = std::string("peer_") + way + "_over_floor";
        std::replace(key.begin(), key.end(), '-', '_');
        rows.push_back(
            overFloor(samples, std::string("wall time over the floor: ") + text, way, "time", key));
    }
    for (const char* way :
         {"walk-copying", "walk-borrowing", "object-manager-client", "sdbus-maps"}) {
        std::string key = std::string("peer_") + way + "_instructions_over_floor_1000";
        std::replace(key.begin(), key.end(), '-', '_');
        rows.push_back({std::string("instructions over the floor at 1000: ") + way,
                        "×",
                        2,
                        {},
                        {{key, instructions(way, "1000")}}});
    }
    return rows;
}

std::vector<Row> callRows(const Samples& samples) {
    const auto lessStop = [&](const char* name) {
        return samples.combine(name, "requests/stop/floor",
                               [](double a, double b) { return (a - b) / 1e6; });
    };
    return {
        {"method call over g_dbus_connection_call_sync",
         "×",
         3,
         1.03,
         {{"bus_call_over_bare", samples.ratio("bus/call/library", "bus/call/floor")}}},
        {"property write over g_dbus_connection_call_sync",
         "×",
         3,
         1.03,
         {{"bus_write_over_bare", samples.ratio("bus/write/library", "bus/write/floor")}}},
        {"the bare method call, property write",
         "µs",
         1,
         {},
         {{"bus_call_bare_us", samples.scaled("bus/call/floor", 1e-3)},
          {"bus_write_bare_us", samples.scaled("bus/write/floor", 1e-3)}}},
        {"makeRequest to executeRequest",
         "µs",
         1,
         100,
         {{"request_start_us", samples.scaled("requests/start/library", 1e-3)}}},
        {"… a bare std::thread",
         "µs",
         1,
         {},
         {{"request_start_bare_us", samples.scaled("requests/start/floor", 1e-3)}}},
        {"cancelRequest to callback, scan, less StopDiscovery",
         "ms",
         3,
         1,
         {{"request_cancel_scan_ms", lessStop("requests/cancel-scan/library")}}},
        {"cancelRequest to callback, wait among 10 devices",
         "ms",
         3,
         1,
         {{"request_cancel_wait_ms", samples.scaled("requests/cancel-wait/library", 1e-6)}}},
    };
}

std::vector<Row> boardRows(const Samples& samples) {
    Row over{"setEnabled(true) over a script by hand, wirings 0, 1, 2", "×", 2, 1.05, {}};
    Row library{"… the library", "s", 2, {}, {}};
    Row hand{"… by hand", "s", 2, {}, {}};
    Row pauses{"… pauses of 500 ms until hci0 is up", "", 0, {}, {}};
    Row attach{"… attach by hand, looking each 100 ms", "s", 2, {}, {}};
    Row all{"… with construction, which loads the modules, over by hand", "×", 2, {}, {}};
    for (const char* wiring : {"0", "1", "2"}) {
        const std::string prefix = std::string("board/") + wiring + '/';
        const auto key = [wiring](const char* name) { return std::string(name) + '_' + wiring; };
        over.values.emplace_back(key("switch_on_over_by_hand"),
                                 samples.ratio(prefix + "on/library", prefix + "on/by-hand"));
        library.values.emplace_back(key("switch_on_s"),
                                    samples.scaled(prefix + "on/library", 1e-6));
        hand.values.emplace_back(key("switch_on_by_hand_s"),
                                 samples.scaled(prefix + "on/by-hand", 1e-6));
        pauses.values.emplace_back(key("switch_on_pauses"),
                                   samples.median(prefix + "polls/library"));
        attach.values.emplace_back(key("attach_by_hand_s"),
                                   samples.scaled(prefix + "attach/by-hand", 1e-6));
        const auto sum = [](double a, double b) { return a + b; };
        const Value ours =
            samples.combine(prefix + "construct/library", prefix + "on/library", sum);
        const Value theirs = samples.combine(prefix + "load/by-hand", prefix + "on/by-hand", sum);
        all.values.emplace_back(key("load_and_switch_on_over_by_hand"),
                                ours && theirs ? Value(*ours / *theirs) : Value());
    }
    const auto less = [&](const char* a, const char* b) {
        return samples.combine(std::string("footprint/memory/") + a,
                               std::string("footprint/memory/") + b,
                               [](double first, double second) { return first - second; });
    };
    std::vector<Row> rows{
        over,
        library,
        hand,
        pauses,
        attach,
        all,
        {"libCorvane.so, armhf, stripped",
         "KiB",
         1,
         160,
         {{"library_size_kib", samples.scaled("footprint/size/library", 1.0 / 1024)}}},
        {"private memory above two bare bus connections: manager made",
         "KiB",
         0,
         1024,
         {{"memory_made_kib", less("made", "bare")}}},
        {"… 100 devices listed", "KiB", 0, 1024, {{"memory_listed_kib", less("listed", "bare")}}},
        {"… of these, what GDBus alone keeps after such a call",
         "KiB",
         0,
         {},
         {{"memory_gdbus_kib", less("called", "bare")}}},
        {"… the two bare connections themselves",
         "KiB",
         0,
         {},
         {{"memory_bare_kib", samples.median("footprint/memory/bare")}}},
        {"dependencies of libCorvane.so that are not used",
         "",
         0,
         0,
         {{"unused_dependencies", samples.median("footprint/unused/library")}}},
        {"relocations in libCorvane.so itself",
         "",
         0,
         {},
         {{"relocations_library", samples.median("footprint/relocations/file")}}},
        {"start of a process, exec to exit: with the library, bare",
         "ms",
         0,
         {},
         {{"start_library_ms", samples.scaled("footprint/start/library", 1e-3)},
          {"start_bare_ms", samples.scaled("footprint/start/bare", 1e-3)}}},
        {"… relocations by name and relative: with the library, bare",
         "",
         0,
         {},
         {{"relocations_by_name_library", samples.median("footprint/relocations-by-name/library")},
          {"relocations_relative_library",
           samples.median("footprint/relocations-relative/library")},
          {"relocations_by_name_bare", samples.median("footprint/relocations-by-name/bare")},
          {"relocations_relative_bare", samples.median("footprint/relocations-relative/bare")}}},
    };
    return rows;
}

std::string number(double value, int digits) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

/// What is held to the limit is the value, not how the table rounds it.
bool isMet(const Row& row) {
    return std::all_of(row.values.begin(), row.values.end(), [&row](const auto& entry) {
        return !entry.second || *entry.second <= *row.limit;
    });
}

void printTable(const std::vector<Row>& rows) {
    std::puts("| what | measured | target | |\n|---|---|---|---|");
    for (const Row& row : rows) {
        std::string measured;
        for (const auto& [key, value] : row.values) {
            if (!measured.empty()) measured += " · ";
            measured += value ? number(*value, row.digits) : "–";
        }
        const std::string target = row.limit ? "≤ " + number(*row.limit, row.digits) : "";
        std::printf("| %s | %s%s%s | %s | %s |\n", row.what.c_str(), measured.c_str(),
                    row.unit.empty() ? "" : " ", row.unit.c_str(), target.c_str(),
                    !row.limit   ? ""
                    : isMet(row) ? "met"
                                 : "**not met**");
    }
}

std::string processor() {
    std::ifstream information("/proc/cpuinfo");
    for (std::string line; std::getline(information, line);) {
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    }
    return "unknown";
}

std::string today() {
    const std::time_t now = std::time(nullptr);
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%F", std::gmtime(&now));
    return text.data();
}

int report(int argc, char** argv) {
    const bool json = argc > 1 && std::strcmp(argv[1], "--json") == 0;
    Samples samples;
    for (int i = json ? 2 : 1; i < argc; ++i) samples.read(argv[i]);

    std::vector<Row> rows;
    for (const auto& part : {scanRows(samples), callRows(samples), boardRows(samples)}) {
        for (const Row& row : part) {
            const bool measured = std::any_of(row.values.begin(), row.values.end(),
                                              [](const auto& entry) { return entry.second; });
            if (measured) rows.push_back(row);
        }
    }
    const auto [leastLoad, mostLoad] = samples.range("load/");
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    if (json) {
        nlohmann::ordered_json object;
        object["date"] = today();
        object["processor"] = processor();
        object["cores"] = cores;
        if (leastLoad) object["load"] = {*leastLoad, *mostLoad};
        nlohmann::ordered_json notMet = nlohmann::ordered_json::array();
        for (const Row& row : rows) {
            for (const auto& [key, value] : row.values) {
                if (!value) continue;
                object[key] = std::round(*value * 1e4) / 1e4;
                if (row.limit && *value > *row.limit) notMet.push_back(key);
            }
        }
        object["not_met"] = notMet;
        std::puts(object.dump(2).c_str());
        return EXIT_SUCCESS;
    }
    std::printf("Measured on %s: %s, %ld cores", today().c_str(), processor().c_str(), cores);
    if (leastLoad) {
        std::printf(", load %s to %s by other work and by the measuring itself",
                    number(*leastLoad, 1).c_str(), number(*mostLoad, 1).c_str());
    }
    std::puts(".\n");
    printTable(rows);
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return report(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "corvane-bench-report: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
