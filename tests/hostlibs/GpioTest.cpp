#include "GPIO/GPIOManager.h"

#include <gmock/gmock.h>
#include <gpiod.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>

using GPIO::Direction;
using GPIO::GPIOManager;
using GPIO::Value;

// A GPIO library without a kernel: chips by device path, their lines, and the calls made.

#ifdef GPIOD_LINE_BULK_MAX_LINES  // libgpiod 1
struct gpiod_line {
#else  // libgpiod 2
struct gpiod_line_request {
    unsigned offset = 0;
#endif
    bool busy = false;
    bool requested = false;
    bool output = false;
    int level = 0;
};

namespace {
#ifdef GPIOD_LINE_BULK_MAX_LINES
using Line = gpiod_line;
#else
using Line = gpiod_line_request;
struct SettingsDeleter {
    void operator()(gpiod_line_settings* settings) const { gpiod_line_settings_free(settings); }
};
using SettingsPtr = std::unique_ptr<gpiod_line_settings, SettingsDeleter>;
#endif
}  // namespace

struct gpiod_chip {
    int openError = 0;
    std::vector<Line> lines;
};

namespace {

struct Gpios {
    std::map<std::string, gpiod_chip> chips;
    std::vector<std::string> done;
    int folderError = 0;
};

Gpios* gpios = nullptr;

int failWith(int error) {
    errno = error;
    return -1;
}

int request(Line& line) {
    if (line.busy) return failWith(EBUSY);
    line.requested = true;
    gpios->done.emplace_back("request");
    return 0;
}

int makeInput(Line& line) {
    if (!line.requested) return failWith(EBUSY);
    line.output = false;
    gpios->done.emplace_back("input");
    return 0;
}

int makeOutput(Line& line, int level) {
    if (!line.requested) return failWith(EBUSY);
    line.output = true;
    line.level = level;
    gpios->done.push_back("output " + std::to_string(level));
    return 0;
}

int levelOf(const Line& line) { return line.requested ? line.level : failWith(EBUSY); }

int setLevel(Line& line, int level) {
    if (!line.requested) return failWith(EBUSY);
    if (!line.output) return failWith(EPERM);
    line.level = level;
    gpios->done.push_back("set " + std::to_string(level));
    return 0;
}

}  // namespace

extern "C" {

int scandir(const char* folder, dirent*** entries, int (*filter)(const dirent*),
            int (*compare)(const dirent**, const dirent**)) {
    EXPECT_STREQ(folder, "/dev");
    if (gpios->folderError != 0) return failWith(gpios->folderError);
    std::vector<std::string> names{"gpiochip", "gpiochip0x", "null", "gpio"};
    for (const auto& [path, chip] : gpios->chips) names.push_back(path.substr(5));
    constexpr size_t entrySize = sizeof(void*);
    auto** found = static_cast<dirent**>(std::calloc(names.size(), entrySize));
    int count = 0;
    for (const std::string& name : names) {
        auto* entry = static_cast<dirent*>(std::calloc(1, sizeof(dirent)));
        std::strcpy(entry->d_name, name.c_str());
        if (filter(entry) != 0) {
            found[count++] = entry;
        } else {
            std::free(entry);
        }
    }
    std::qsort(found, static_cast<size_t>(count), entrySize,
               reinterpret_cast<int (*)(const void*, const void*)>(compare));
    *entries = found;
    return count;
}

gpiod_chip* gpiod_chip_open(const char* path) {
    gpiod_chip& chip = gpios->chips.at(path);
    errno = chip.openError;
    return chip.openError == 0 ? &chip : nullptr;
}

#ifdef GPIOD_LINE_BULK_MAX_LINES

void gpiod_chip_close(gpiod_chip* chip) {
    for (Line& line : chip->lines) line.requested = false;
}

unsigned gpiod_chip_num_lines(gpiod_chip* chip) {
    return static_cast<unsigned>(chip->lines.size());
}

gpiod_line* gpiod_chip_get_line(gpiod_chip* chip, unsigned offset) {
    return &chip->lines.at(offset);
}

int gpiod_line_request(gpiod_line* line, const gpiod_line_request_config* config, int) {
    EXPECT_STREQ(config->consumer, "corvane");
    EXPECT_EQ(config->request_type, GPIOD_LINE_REQUEST_DIRECTION_AS_IS);
    EXPECT_EQ(config->flags, 0);
    return request(*line);
}

int gpiod_line_set_direction_input(gpiod_line* line) { return makeInput(*line); }
int gpiod_line_set_direction_output(gpiod_line* line, int level) {
    return makeOutput(*line, level);
}
int gpiod_line_get_value(gpiod_line* line) { return levelOf(*line); }
int gpiod_line_set_value(gpiod_line* line, int level) { return setLevel(*line, level); }

#else

void gpiod_chip_close(gpiod_chip*) {}

// The information about a chip is the chip.
gpiod_chip_info* gpiod_chip_get_info(gpiod_chip* chip) {
    return reinterpret_cast<gpiod_chip_info*>(chip);
}
void gpiod_chip_info_free(gpiod_chip_info*) {}
size_t gpiod_chip_info_get_num_lines(gpiod_chip_info* info) {
    return reinterpret_cast<gpiod_chip*>(info)->lines.size();
}

gpiod_line_request* gpiod_chip_request_lines(gpiod_chip* chip, gpiod_request_config* request_config,
                                             gpiod_line_config* config) {
    EXPECT_STREQ(gpiod_request_config_get_consumer(request_config), "corvane");
    unsigned offset = 0;
    EXPECT_EQ(gpiod_line_config_get_configured_offsets(config, &offset, 1), 1U);
    const SettingsPtr settings(gpiod_line_config_get_line_settings(config, offset));
    EXPECT_EQ(gpiod_line_settings_get_direction(settings.get()), GPIOD_LINE_DIRECTION_AS_IS);
    Line& line = chip->lines.at(offset);
    line.offset = offset;
    return request(line) == 0 ? &line : nullptr;
}

int gpiod_line_request_reconfigure_lines(gpiod_line_request* line, gpiod_line_config* config) {
    const SettingsPtr settings(gpiod_line_config_get_line_settings(config, line->offset));
    return gpiod_line_settings_get_direction(settings.get()) == GPIOD_LINE_DIRECTION_OUTPUT
               ? makeOutput(*line, gpiod_line_settings_get_output_value(settings.get()))
               : makeInput(*line);
}

gpiod_line_value gpiod_line_request_get_value(gpiod_line_request* line, unsigned offset) {
    EXPECT_EQ(offset, line->offset);
    return static_cast<gpiod_line_value>(levelOf(*line));
}

int gpiod_line_request_set_value(gpiod_line_request* line, unsigned offset,
                                 gpiod_line_value level) {
    EXPECT_EQ(offset, line->offset);
    return setLevel(*line, level);
}

void gpiod_line_request_release(gpiod_line_request* line) { line->requested = false; }

#endif

}  // extern "C"

namespace {

/// Chips 0, 2 and 10 with 4, 2 and 8 lines: pins 0 to 13. Lines stay held until the process ends,
/// so each test uses other pins, and chips are never freed.
class GpioLines : public testing::Test {
protected:
    GpioLines() {
        static Gpios all{{{"/dev/gpiochip0", {0, std::vector<Line>(4)}},
                          {"/dev/gpiochip2", {0, std::vector<Line>(2)}},
                          {"/dev/gpiochip10", {0, std::vector<Line>(8)}}},
                         {},
                         0};
        gpios = &all;
        all.done.clear();
    }

    static Line& line(const std::string& chip, size_t offset) {
        return gpios->chips.at("/dev/" + chip).lines.at(offset);
    }
    static void setOpenError(const std::string& chip, int error) {
        gpios->chips.at("/dev/" + chip).openError = error;
    }

    using Done = std::vector<std::string>;
    GPIOManager manager;
};

}  // namespace

TEST_F(GpioLines, AreNumberedAcrossChipsInNumericOrder) {
    EXPECT_EQ(manager.exportPin(3), 1);
    EXPECT_TRUE(line("gpiochip0", 3).requested);
    EXPECT_EQ(manager.exportPin(4), 1);
    EXPECT_TRUE(line("gpiochip2", 0).requested);
    EXPECT_EQ(manager.exportPin(13), 1);
    EXPECT_TRUE(line("gpiochip10", 7).requested);
    EXPECT_EQ(manager.exportPin(14), 0);
    EXPECT_EQ(manager.exportPin(4294967295U), 0);
}

TEST_F(GpioLines, AreRefusedBehindAChipThatCannotBeOpened) {
    setOpenError("gpiochip2", EACCES);
    EXPECT_EQ(manager.exportPin(2), 1);
    EXPECT_EQ(manager.exportPin(5), 0);
    EXPECT_EQ(manager.exportPin(6), 0);
    setOpenError("gpiochip2", 0);
    EXPECT_FALSE(line("gpiochip10", 0).requested);
}

TEST_F(GpioLines, KeepTheirLevelWhenTheyBecomeOutputs) {
    line("gpiochip10", 1).level = 1;
    line("gpiochip10", 2).output = true;
    for (const unsigned pin : {7U, 8U}) {
        EXPECT_EQ(manager.exportPin(pin), 1);
        EXPECT_EQ(manager.setDirection(pin, Direction::OUTPUT), 1);
    }
    EXPECT_EQ(gpios->done, (Done{"request", "output 1", "request", "output 0"}));
    EXPECT_EQ(manager.getValue(7), 1);
    EXPECT_EQ(manager.getValue(8), 0);
}

TEST_F(GpioLines, StayHeldAfterTheirManagerIsDestroyed) {
    {
        GPIOManager first;
        EXPECT_EQ(first.exportPin(9), 1);
        EXPECT_EQ(first.setDirection(9, Direction::OUTPUT), 1);
        EXPECT_EQ(first.setValue(9, Value::HIGH), 1);
    }
    EXPECT_EQ(manager.exportPin(9), 1);
    EXPECT_EQ(manager.getValue(9), 1);
    EXPECT_EQ(gpios->done, (Done{"request", "output 0", "set 1"}));
}

TEST_F(GpioLines, AreTakenOnceFreeWithTheirDirection) {
    line("gpiochip10", 4).busy = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(manager.exportPin(10), 0);
    EXPECT_EQ(manager.setDirection(10, Direction::OUTPUT), 0);
    EXPECT_EQ(manager.getValue(10), -1);
    EXPECT_EQ(manager.setValue(10, Value::HIGH), 0);
    line("gpiochip10", 4).busy = false;
    gpios->folderError = EMFILE;
    EXPECT_EQ(manager.getValue(10), -1);
    EXPECT_EQ(manager.setValue(10, Value::HIGH), 0);
    gpios->folderError = 0;
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("[^\n]*: GPIO 10: [^\n]* busy; [^\n]*\n"
                                      "[^\n]*: GPIO 10: [^\n]*/dev: Too many open files\n"))
        << "each reason once";
    EXPECT_EQ(manager.setValue(10, Value::HIGH), 1);
    EXPECT_EQ(gpios->done, (Done{"request", "output 0", "set 1"}));
    EXPECT_EQ(manager.setDirection(10, Direction::INPUT), 1);
    EXPECT_EQ(manager.setValue(10, Value::HIGH), 0) << "not an output";
    EXPECT_EQ(manager.getValue(12), -1) << "never exported";
}
