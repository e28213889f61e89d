// rtk_hciattach: attaches the radio module's controller on a serial line. The virtual board's
// module speaks H4, so both of the tool's protocol names mean H4 here.

#include "H4Stream.h"
#include "SerialLine.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include <poll.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <termios.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto answerTime = 500ms;  // a controller answers a reset within milliseconds
constexpr int resetAttempts = 10;   // hosts give the controller about 5 s to appear
constexpr int lineDisciplineTty = 0;

constexpr const char* usage =
    "usage: rtk_hciattach [-n] [-s SPEED] LINE rtk_h4|rtk_h5\n"
    "  -n        stay in the foreground\n"
    "  -s SPEED  first speed of the line in baud, 9600 to 3000000; 115200 when not given\n";

struct Speed {
    long baud;
    speed_t code;
};
constexpr Speed speeds[] = {{9600, B9600},       {19200, B19200},    {38400, B38400},
                            {57600, B57600},     {115200, B115200},  {230400, B230400},
                            {460800, B460800},   {921600, B921600},  {1500000, B1500000},
                            {2000000, B2000000}, {3000000, B3000000}};

void setSpeed(int line, const std::string& text) {
    for (const Speed& speed : speeds) {
        if (std::to_string(speed.baud) != text) continue;
        termios settings{};
        if (tcgetattr(line, &settings) != 0 || cfsetspeed(&settings, speed.code) != 0 ||
            tcsetattr(line, TCSANOW, &settings) != 0) {
            board::throwErrno("setting the line's speed");
        }
        return;
    }
    throw std::runtime_error("no such speed: " + text + "; see rtk_hciattach without arguments");
}

/// Resets the controller.
/// @return whether it answered in time
bool resetController(int line) {
    constexpr std::uint8_t reset[] = {board::H4_COMMAND, 0x03, 0x0C, 0};
    if (::write(line, reset, sizeof reset) != sizeof reset)
        board::throwErrno("writing to the line");
    board::H4Stream stream;
    const auto deadline = Clock::now() + answerTime;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left <= 0ms) return false;
        pollfd entry{line, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) continue;
        std::uint8_t bytes[256];
        const ssize_t got = ::read(line, bytes, sizeof bytes);
        if (got <= 0) board::throwErrno("reading from the line");
        stream.feed(bytes, static_cast<std::size_t>(got));
        board::Bytes packet;
        while (stream.next(packet)) {
            // Command Complete (0x0E) of the reset, status 0.
            if (packet.size() >= 7 && packet[0] == board::H4_EVENT && packet[1] == 0x0E &&
                packet[4] == reset[1] && packet[5] == reset[2] && packet[6] == 0) {
                return true;
            }
        }
    }
}

int attach(const std::string& path, const std::string& speed, bool foreground) {
    const board::UniqueFd line = board::openRaw(path.c_str());
    setSpeed(line.get(), speed);
    tcflush(line.get(), TCIOFLUSH);
    bool answered = false;
    for (int attempt = 0; attempt < resetAttempts && !answered; ++attempt) {
        answered = resetController(line.get());
    }
    if (!answered) {
        throw std::runtime_error("no answer from the controller on " + path +
                                 "; is the radio module powered?");
    }

    // From here on only sigwait() below takes the signals that end this program, so that the
    // controller is always detached first.
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&ending, number);
    sigprocmask(SIG_BLOCK, &ending, nullptr);

    const int device = board::attachH4(line.get());
    syslog(LOG_INFO, "hci%d attached on %s", device, path.c_str());
    if (!foreground && daemon(0, 0) != 0) board::throwErrno("going to the background");
    int number = 0;
    sigwait(&ending, &number);
    ioctl(line.get(), TIOCSETD, &lineDisciplineTty);
    syslog(LOG_INFO, "hci%d detached from %s", device, path.c_str());
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    bool foreground = false;
    std::string speed = "115200";
    int option = 0;
    while ((option = getopt(argc, argv, "ns:")) != -1) {
        if (option == 'n') {
            foreground = true;
        } else if (option == 's') {
            speed = optarg;
        } else {
            std::fputs(usage, stderr);
            return 2;
        }
    }
    if (argc - optind != 2) {
        std::fputs(usage, stderr);
        return 2;
    }
    const std::string protocol = argv[optind + 1];
    if (protocol != "rtk_h4" && protocol != "rtk_h5") {
        std::fprintf(stderr, "rtk_hciattach: no such protocol: %s\n%s", protocol.c_str(), usage);
        return 2;
    }
    openlog("rtk_hciattach", LOG_PID, LOG_DAEMON);
    try {
        return attach(argv[optind], speed, foreground);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rtk_hciattach: %s\n", error.what());
        syslog(LOG_ERR, "%s", error.what());
        return EXIT_FAILURE;
    }
}
