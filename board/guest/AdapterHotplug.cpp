// adapter-hotplug: makes each Bluetooth adapter pairable as soon as the kernel has it. bluetoothd
// would do so itself at its start, and tell a host that sets Pairable at that moment "Busy".

#include "Management.h"
#include "UniqueFd.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <syslog.h>

namespace {

using namespace std::chrono_literals;

/// The number of the adapter that a message of the kernel announces ("add@/devices/.../hci0"), or
/// -1 for any other message.
int announcedAdapter(const std::string& message) {
    const std::string head = message.substr(0, message.find('\0'));
    const std::size_t name = head.rfind("/hci");
    if (head.rfind("add@", 0) != 0 || name == std::string::npos) return -1;
    const std::string number = head.substr(name + 4);
    // Links of an adapter are called hci0:42.
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) return -1;
    return std::atoi(number.c_str());
}

void makePairable(int adapter) {
    // The kernel asks a new controller for its features first, which takes it some 100 ms.
    constexpr int attempts = 2400;  // a minute of a busy machine
    int status = board::invalidIndex;
    for (int attempt = 0; attempt < attempts && status == board::invalidIndex; ++attempt) {
        std::this_thread::sleep_for(25ms);
        status = board::manage(adapter, board::SET_BONDABLE, {1});
    }
    if (status != 0) syslog(LOG_ERR, "hci%d cannot be made pairable: status %d", adapter, status);
}

void serve() {
    const board::UniqueFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;  // the kernel's own messages
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        board::throwErrno("the kernel's device messages");
    }
    if (daemon(0, 0) != 0) board::throwErrno("going to the background");
    for (;;) {
        char message[4096];
        const ssize_t got = recv(fd.get(), message, sizeof message, 0);
        // ENOBUFS: more messages than fit at once, of devices that are of no interest here.
        if (got < 0 && errno != EINTR && errno != ENOBUFS) board::throwErrno("a device message");
        if (got <= 0) continue;
        const int adapter = announcedAdapter(std::string(message, static_cast<std::size_t>(got)));
        if (adapter >= 0) makePairable(adapter);
    }
}

}  // namespace

int main() {
    openlog("adapter-hotplug", LOG_PID, LOG_DAEMON);
    try {
        serve();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "adapter-hotplug: %s\n", error.what());
        syslog(LOG_ERR, "%s", error.what());
    }
    return EXIT_FAILURE;
}
