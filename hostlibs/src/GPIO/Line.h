#pragma once

// Chips and held lines, by libgpiod 1 or 2. What fails returns null or -1, with the reason in
// errno.

#include <gpiod.h>

#include <memory>
#include <utility>

namespace GPIO {

constexpr char consumer[] = "corvane";  // gpioinfo shows it with the line

template <auto Release>
struct Releaser {
    template <class T>
    void operator()(T* handle) const noexcept {
        Release(handle);
    }
};

struct Chip {
    std::unique_ptr<gpiod_chip, Releaser<gpiod_chip_close>> handle;
    unsigned lines = 0;
};

#ifdef GPIOD_LINE_BULK_MAX_LINES  // libgpiod 1

inline Chip openChip(const char* path) {
    Chip chip{decltype(Chip::handle)(gpiod_chip_open(path))};
    if (chip.handle) chip.lines = gpiod_chip_num_lines(chip.handle.get());
    return chip;
}

/// A line in use. Its chip stays open too, because closing a chip releases its lines.
class Line {
public:
    /// Takes a line without changing its direction or level.
    static std::unique_ptr<Line> take(Chip chip, unsigned offset) {
        gpiod_line* const line = gpiod_chip_get_line(chip.handle.get(), offset);
        const gpiod_line_request_config request{consumer, GPIOD_LINE_REQUEST_DIRECTION_AS_IS, 0};
        if (line == nullptr || gpiod_line_request(line, &request, 0) != 0) return nullptr;
        return std::unique_ptr<Line>(new Line(std::move(chip), line));
    }

    int level() const { return gpiod_line_get_value(line); }
    int setLevel(int level) const { return gpiod_line_set_value(line, level); }
    int makeInput() const { return gpiod_line_set_direction_input(line); }
    int makeOutput(int level) const { return gpiod_line_set_direction_output(line, level); }

private:
    Line(Chip itsChip, gpiod_line* taken) : chip(std::move(itsChip)), line(taken) {}

    Chip chip;
    gpiod_line* line;
};

#else  // libgpiod 2

inline Chip openChip(const char* path) {
    Chip chip{decltype(Chip::handle)(gpiod_chip_open(path))};
    if (!chip.handle) return chip;
    const std::unique_ptr<gpiod_chip_info, Releaser<gpiod_chip_info_free>> info(
        gpiod_chip_get_info(chip.handle.get()));
    if (!info) return {};
    chip.lines = static_cast<unsigned>(gpiod_chip_info_get_num_lines(info.get()));
    return chip;
}

/// A line in use.
class Line {
public:
    /// Takes a line without changing its direction or level.
    static std::unique_ptr<Line> take(const Chip& chip, unsigned offset) {
        const auto config = configOf(offset, GPIOD_LINE_DIRECTION_AS_IS, 0);
        const std::unique_ptr<gpiod_request_config, Releaser<gpiod_request_config_free>> request(
            gpiod_request_config_new());
        if (!config || !request) return nullptr;
        gpiod_request_config_set_consumer(request.get(), consumer);
        auto* const line = gpiod_chip_request_lines(chip.handle.get(), request.get(), config.get());
        return line == nullptr ? nullptr : std::unique_ptr<Line>(new Line(line, offset));
    }

    int level() const { return gpiod_line_request_get_value(line.get(), offset); }
    int setLevel(int level) const {
        return gpiod_line_request_set_value(line.get(), offset,
                                            static_cast<gpiod_line_value>(level));
    }
    int makeInput() const { return configure(GPIOD_LINE_DIRECTION_INPUT, 0); }
    int makeOutput(int level) const { return configure(GPIOD_LINE_DIRECTION_OUTPUT, level); }

private:
    using Config = std::unique_ptr<gpiod_line_config, Releaser<gpiod_line_config_free>>;

    Line(gpiod_line_request* taken, unsigned itsOffset) : line(taken), offset(itsOffset) {}

    static Config configOf(unsigned offset, gpiod_line_direction direction, int level) {
        const std::unique_ptr<gpiod_line_settings, Releaser<gpiod_line_settings_free>> settings(
            gpiod_line_settings_new());
        Config config(gpiod_line_config_new());
        if (!settings || !config) return nullptr;
        gpiod_line_settings_set_direction(settings.get(), direction);
        gpiod_line_settings_set_output_value(settings.get(), static_cast<gpiod_line_value>(level));
        if (gpiod_line_config_add_line_settings(config.get(), &offset, 1, settings.get()) != 0) {
            return nullptr;
        }
        return config;
    }

    int configure(gpiod_line_direction direction, int level) const {
        const auto config = configOf(offset, direction, level);
        return config ? gpiod_line_request_reconfigure_lines(line.get(), config.get()) : -1;
    }

    std::unique_ptr<gpiod_line_request, Releaser<gpiod_line_request_release>> line;
    unsigned offset;
};

#endif

}  // namespace GPIO
