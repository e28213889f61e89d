#include "SerialLine.h"

#include <stdexcept>

#include <sys/ioctl.h>
#include <termios.h>

namespace board {
namespace {

// From the kernel's Bluetooth UART driver; no header is installed for them.
constexpr unsigned long setProtocol = _IOW('U', 200, int);
constexpr unsigned long getDevice = _IOR('U', 202, int);
constexpr int protocolH4 = 0;
constexpr int lineDisciplineHci = 15;

}  // namespace

UniqueFd openRaw(const char* path) {
    UniqueFd fd(::open(path, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!fd) throwErrno(path);
    termios settings{};
    if (tcgetattr(fd.get(), &settings) != 0) throwErrno(std::string(path) + " is no serial line");
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD;
    cfsetspeed(&settings, B115200);
    if (tcsetattr(fd.get(), TCSANOW, &settings) != 0) throwErrno(path);
    return fd;
}

int attachH4(int line) {
    const int discipline = lineDisciplineHci;
    if (ioctl(line, TIOCSETD, &discipline) != 0) {
        if (errno == EINVAL) {
            throw std::runtime_error("the kernel has no Bluetooth UART driver; load hci_uart.ko");
        }
        throwErrno("setting the Bluetooth line discipline");
    }
    if (ioctl(line, setProtocol, protocolH4) != 0) throwErrno("setting the H4 protocol");
    const int device = ioctl(line, getDevice, 0);
    if (device < 0) throwErrno("asking for the number of the hci device");
    return device;
}

}  // namespace board
