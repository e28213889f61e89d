#include "GPIO/GPIOManager.h"

#include "Line.h"
#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <dirent.h>

namespace GPIO {

namespace {

constexpr char deviceFolder[] = "/dev";
constexpr char chipPrefix[] = "gpiochip";

/// The lines in use, by pin. Never freed: a line may lose its level when nobody holds it.
std::map<unsigned, std::unique_ptr<Line>>& heldLines() {
    static auto& lines = *new std::map<unsigned, std::unique_ptr<Line>>;
    return lines;
}

/// An exported pin. Its line may not be held yet.
struct ExportedPin {
    std::optional<Direction> direction;  // wanted; set once the line is held
    std::string reason;                  // why the line could not be taken, as last logged
};

std::map<unsigned, ExportedPin>& exportedPins() {
    static auto& pins = *new std::map<unsigned, ExportedPin>;
    return pins;
}

bool fail(unsigned pin, const std::string& reason) {
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "GPIO " << pin << ": " << reason);
    return false;
}

/// Logs why a line cannot be taken, once per reason: every call for the pin tries again.
void failToTake(unsigned pin, const std::string& reason) {
    std::string& logged = exportedPins()[pin].reason;
    if (reason == logged) return;
    logged = reason;
    fail(pin, reason);
}

std::string errorText(int error) { return std::generic_category().message(error); }

int isChip(const dirent* entry) {
    const std::string_view name = entry->d_name;
    constexpr std::string_view prefix = chipPrefix;
    return name.size() > prefix.size() && name.substr(0, prefix.size()) == prefix &&
                   name.find_first_not_of("0123456789", prefix.size()) == std::string_view::npos
               ? 1
               : 0;
}

/// Lists the chips' devices, chip 2 before chip 10; nothing (errno) if the folder cannot be read.
std::optional<std::vector<std::string>> chipPaths() {
    dirent** entries = nullptr;
    const int count = scandir(deviceFolder, &entries, isChip, versionsort);
    if (count < 0) return std::nullopt;
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
        paths.push_back(std::string(deviceFolder) + "/" + entries[i]->d_name);
        std::free(entries[i]);
    }
    std::free(entries);
    return paths;
}

/// A pin's chip and its offset there. The chip is null, and the reason logged, if there is none.
struct Place {
    Chip chip;
    unsigned offset = 0;
};

Place placeOf(unsigned pin) {
    Place place;
    unsigned lines = 0;
    const auto paths = chipPaths();
    if (!paths) {
        failToTake(pin, std::string("cannot read ") + deviceFolder + ": " + errorText(errno));
        return place;
    }
    for (const std::string& path : *paths) {
        place.chip = openChip(path.c_str());
        if (!place.chip.handle) {
            // Its number of lines is unknown, so later pins cannot be located either.
            failToTake(pin, "cannot open " + path + ": " + errorText(errno));
            return place;
        }
        if (pin - lines < place.chip.lines) {
            place.offset = pin - lines;
            return place;
        }
        lines += place.chip.lines;
    }
    failToTake(pin, "no such line; the chips in " + std::string(deviceFolder) + " have " +
                        std::to_string(lines));
    place.chip = {};
    return place;
}

/// Takes an exported pin's line and never releases it.
/// @return the line; null, with the reason in the log, if it cannot be taken
const Line* take(unsigned pin) {
    Place place = placeOf(pin);
    if (!place.chip.handle) return nullptr;
    auto line = Line::take(std::move(place.chip), place.offset);
    if (!line) {
        const int error = errno;
        failToTake(pin,
                   "cannot take the line: " + errorText(error) +
                       (error == EBUSY ? "; another program or /sys/class/gpio holds it" : ""));
        return nullptr;
    }
    return heldLines().emplace(pin, std::move(line)).first->second.get();
}

bool applyDirection(const Line& line, unsigned pin, Direction direction) {
    int result = 0;
    if (direction == Direction::INPUT) {
        result = line.makeInput();
    } else {
        const int level = line.level();
        result = level < 0 ? level : line.makeOutput(level);
    }
    return result == 0 || fail(pin, "cannot set the direction: " + errorText(errno));
}

/// Returns an exported pin's line. Tries again to take a line that was missing or busy before.
const Line* lineOf(unsigned pin) {
    const auto exported = exportedPins().find(pin);
    if (exported == exportedPins().end()) {
        fail(pin, "not exported; call exportPin() first");
        return nullptr;
    }
    const auto held = heldLines().find(pin);
    if (held != heldLines().end()) return held->second.get();
    const Line* const line = take(pin);
    if (line != nullptr && exported->second.direction) {
        applyDirection(*line, pin, *exported->second.direction);
    }
    return line;
}

}  // namespace

GPIOManager::GPIOManager() = default;

GPIOManager::~GPIOManager() = default;

int GPIOManager::exportPin(unsigned pin) {
    exportedPins().try_emplace(pin);
    return lineOf(pin) != nullptr ? 1 : 0;
}

int GPIOManager::setDirection(unsigned pin, Direction direction) {
    const Line* const line = lineOf(pin);
    const auto exported = exportedPins().find(pin);
    if (exported != exportedPins().end()) exported->second.direction = direction;
    return line != nullptr && applyDirection(*line, pin, direction) ? 1 : 0;
}

int GPIOManager::getValue(unsigned pin) {
    const Line* const line = lineOf(pin);
    if (line == nullptr) return -1;
    const int level = line->level();
    if (level < 0) {
        fail(pin, "cannot read the level: " + errorText(errno));
        return -1;
    }
    return level;
}

int GPIOManager::setValue(unsigned pin, Value value) {
    const Line* const line = lineOf(pin);
    if (line == nullptr) return 0;
    if (line->setLevel(static_cast<int>(value)) == 0) return 1;
    fail(pin,
         "cannot set the level: " + (errno == EPERM ? "it is not an output" : errorText(errno)));
    return 0;
}

}  // namespace GPIO
