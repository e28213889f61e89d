#include "Management.h"

#include "UniqueFd.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>

#include <sys/socket.h>

namespace board {

int manage(int device, ManagementCommand command, const std::vector<std::uint8_t>& parameters) {
    const UniqueFd fd(socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, BTPROTO_HCI));
    sockaddr_hci address{};
    address.hci_family = AF_BLUETOOTH;
    address.hci_dev = HCI_DEV_NONE;
    address.hci_channel = HCI_CHANNEL_CONTROL;
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throwErrno("the kernel's Bluetooth management socket");
    }
    std::vector<std::uint8_t> request;
    for (const unsigned number : {static_cast<unsigned>(command), static_cast<unsigned>(device),
                                  static_cast<unsigned>(parameters.size())}) {
        request.push_back(static_cast<std::uint8_t>(number & 0xFF));
        request.push_back(static_cast<std::uint8_t>(number >> 8));
    }
    request.insert(request.end(), parameters.begin(), parameters.end());
    if (::write(fd.get(), request.data(), request.size()) < 0) throwErrno("a management command");

    // The answer is Command Complete (1) or Command Status (2): event, device, length, command,
    // status. Other devices' events may come first.
    for (;;) {
        std::uint8_t answer[512];
        const ssize_t got = ::read(fd.get(), answer, sizeof answer);
        if (got < 0) throwErrno("the answer to a management command");
        if (got >= 9 && (answer[0] == 1 || answer[0] == 2) && answer[1] == 0 &&
            (answer[6] | answer[7] << 8) == command) {
            return answer[8];
        }
    }
}

}  // namespace board
