#include "Folder.h"
#include "GPIO/GPIOManager.h"

#include <gmock/gmock.h>
#include <gpiod.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <dlfcn.h>

using GPIO::Direction;
using GPIO::GPIOManager;
using GPIO::Value;

// A GPIO library without a kernel.

#ifdef GPIOD_LINE_BULK_MAX_LINES  // libgpiod 1
using Line = gpiod_line;
struct gpiod_line {
#else  // libgpiod 2
using Line = gpiod_line_request;
struct gpiod_line_request {
    unsigned offset = 0;
#endif
    bool busy = false;
    int level = 0;
    std::string done;  // all that was done to it
};

struct gpiod_chip {
    std::vector<Line>& lines;
    Line* taken = nullptr;
};

namespace {

/// Chips 0, 2 and 10 with 4, 2 and 8 lines: pins 0 to 13.
struct Gpios {
    std::map<std::string, std::vector<Line>> chips{{"/dev/gpiochip0", std::vector<Line>(4)},
                                                   {"/dev/gpiochip2", std::vector<Line>(2)},
                                                   {"/dev/gpiochip10", std::vector<Line>(8)}};
    std::string devices;  // the folder that stands for /dev
};

Gpios& gpios() {
    static Gpios all;
    return all;
}

int request(Line& line) {
    errno = EBUSY;
    if (line.busy) return -1;
    line.done += "request";
    return 0;
}

int configure(Line& line, bool output, int level = 0) {
    if (output) line.level = level;
    line.done += output ? " output " + std::to_string(level) : " input";
    return 0;
}

int setLevel(Line& line, int level) {
    line.level = level;
    line.done += " set " + std::to_string(level);
    return 0;
}

}  // namespace

extern "C" {

int scandir(const char* folder, dirent*** entries, int (*filter)(const dirent*),
            int (*compare)(const dirent**, const dirent**)) {
    EXPECT_STREQ(folder, "/dev");
    return reinterpret_cast<decltype(&scandir)>(dlsym(RTLD_NEXT, "scandir"))(
        gpios().devices.c_str(), entries, filter, compare);
}

gpiod_chip* gpiod_chip_open(const char* path) {
    errno = EACCES;
    const auto chip = gpios().chips.find(path);
    return chip == gpios().chips.end() ? nullptr : new gpiod_chip{chip->second};
}

#ifdef GPIOD_LINE_BULK_MAX_LINES

void gpiod_chip_close(gpiod_chip* chip) {
    Line* const line = chip->taken;
    if (line != nullptr && !line->done.empty()) line->done += " release";
    delete chip;
}

unsigned gpiod_chip_num_lines(gpiod_chip* chip) {
    return static_cast<unsigned>(chip->lines.size());
}

gpiod_line* gpiod_chip_get_line(gpiod_chip* chip, unsigned offset) {
    return chip->taken = &chip->lines.at(offset);
}

int gpiod_line_request(gpiod_line* line, const gpiod_line_request_config* config, int) {
    EXPECT_EQ(config->request_type, GPIOD_LINE_REQUEST_DIRECTION_AS_IS);
    return request(*line);
}

int gpiod_line_set_direction_input(gpiod_line* line) { return configure(*line, false); }
int gpiod_line_set_direction_output(gpiod_line* line, int level) {
    return configure(*line, true, level);
}
int gpiod_line_get_value(gpiod_line* line) { return line->level; }
int gpiod_line_set_value(gpiod_line* line, int level) { return setLevel(*line, level); }

#else

void gpiod_chip_close(gpiod_chip* chip) { delete chip; }

// The information about a chip is the chip.
gpiod_chip_info* gpiod_chip_get_info(gpiod_chip* chip) {
    return reinterpret_cast<gpiod_chip_info*>(chip);
}
void gpiod_chip_info_free(gpiod_chip_info*) {}
size_t gpiod_chip_info_get_num_lines(gpiod_chip_info* info) {
    return reinterpret_cast<gpiod_chip*>(info)->lines.size();
}

namespace {
auto settingsOf(gpiod_line_config* config, unsigned offset) {
    return std::unique_ptr<gpiod_line_settings, decltype(&gpiod_line_settings_free)>(
        gpiod_line_config_get_line_settings(config, offset), gpiod_line_settings_free);
}
}  // namespace

gpiod_line_request* gpiod_chip_request_lines(gpiod_chip* chip, gpiod_request_config*,
                                             gpiod_line_config* config) {
    unsigned offset = 0;
    EXPECT_EQ(gpiod_line_config_get_configured_offsets(config, &offset, 1), 1U);
    EXPECT_EQ(gpiod_line_settings_get_direction(settingsOf(config, offset).get()),
              GPIOD_LINE_DIRECTION_AS_IS);
    Line& line = chip->lines.at(offset);
    line.offset = offset;
    return request(line) == 0 ? &line : nullptr;
}

int gpiod_line_request_reconfigure_lines(gpiod_line_request* line, gpiod_line_config* config) {
    const auto settings = settingsOf(config, line->offset);
    return configure(
        *line, gpiod_line_settings_get_direction(settings.get()) == GPIOD_LINE_DIRECTION_OUTPUT,
        gpiod_line_settings_get_output_value(settings.get()));
}

gpiod_line_value gpiod_line_request_get_value(gpiod_line_request* line, unsigned) {
    return static_cast<gpiod_line_value>(line->level);
}

int gpiod_line_request_set_value(gpiod_line_request* line, unsigned, gpiod_line_value level) {
    return setLevel(*line, level);
}

void gpiod_line_request_release(gpiod_line_request* line) { line->done += " release"; }

#endif

}  // extern "C"

namespace {

/// Lines stay held until the process ends, so each test uses other pins.
class GpioLines : public testing::Test {
protected:
    GpioLines() {
        gpios().devices = folder.path();
        for (const char* name : {"gpiochip", "gpiochip0x", "gpiochip0", "gpiochip2", "gpiochip10"})
            std::ofstream(folder / name).flush();
    }

    static Line& line(const std::string& chip, size_t offset) {
        return gpios().chips.at("/dev/" + chip).at(offset);
    }

    const corvane::test::Folder folder;
    GPIOManager manager;
};

}  // namespace

TEST_F(GpioLines, AreNumberedAcrossChipsInNumericOrder) {
    for (const unsigned pin : {3U, 4U, 13U}) EXPECT_EQ(manager.exportPin(pin), 1) << pin;
    EXPECT_EQ(line("gpiochip0", 3).done, "request");
    EXPECT_EQ(line("gpiochip2", 0).done, "request");
    EXPECT_EQ(line("gpiochip10", 7).done, "request");
    for (const unsigned pin : {14U, 4294967295U}) EXPECT_EQ(manager.exportPin(pin), 0) << pin;
}

TEST_F(GpioLines, AreRefusedBehindAChipThatCannotBeOpened) {
    std::ofstream(folder / "gpiochip5").flush();
    EXPECT_EQ(manager.exportPin(5), 1);
    EXPECT_EQ(manager.exportPin(6), 0);
}

TEST_F(GpioLines, KeepTheirLevelWhenTheyBecomeOutputsAndWhenTheirManagerGoes) {
    Line& high = line("gpiochip10", 1);
    high.level = 1;
    for (const unsigned pin : {7U, 8U}) {
        EXPECT_EQ(manager.exportPin(pin), 1);
        EXPECT_EQ(manager.setDirection(pin, Direction::OUTPUT), 1);
    }
    EXPECT_EQ(GPIOManager().setValue(8, Value::HIGH), 1);
    EXPECT_EQ(manager.exportPin(8), 1);
    EXPECT_EQ(manager.getValue(8), 1);
    EXPECT_EQ(high.done, "request output 1");
    EXPECT_EQ(line("gpiochip10", 2).done, "request output 0 set 1");
}

TEST_F(GpioLines, AreTakenOnceFreeWithTheirDirection) {
    Line& taken = line("gpiochip10", 4);
    taken.busy = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(manager.exportPin(10), 0);
    EXPECT_EQ(manager.setDirection(10, Direction::OUTPUT), 0);
    taken.busy = false;
    gpios().devices += "/missing";
    EXPECT_EQ(manager.getValue(10), -1);
    EXPECT_EQ(manager.setValue(10, Value::HIGH), 0);
    gpios().devices = folder.path();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("[^\n]*: GPIO 10: [^\n]* busy; [^\n]*\n"
                                      "[^\n]*: GPIO 10: [^\n]*/dev: No such file[^\n]*\n"))
        << "each reason once";
    EXPECT_EQ(manager.setValue(10, Value::HIGH), 1);
    EXPECT_EQ(taken.done, "request output 0 set 1");
    EXPECT_EQ(manager.setDirection(10, Direction::INPUT), 1);
    EXPECT_EQ(manager.getValue(12), -1) << "never exported";
}
