#include "L2cap.h"

#include <poll.h>

namespace board {

void l2capConnect(int fd, const std::string& address, std::uint16_t psm, int milliseconds) {
    const std::string what = "channel " + std::to_string(psm) + " of " + address;
    const sockaddr_l2 other = l2capAddress(address, psm);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&other), sizeof other) == 0) return;
    if (errno != EINPROGRESS) throwErrno(what);
    pollfd entry{fd, POLLOUT, 0};
    if (::poll(&entry, 1, milliseconds) <= 0) {
        errno = ETIMEDOUT;
        throwErrno(what);
    }
    int fault = 0;
    socklen_t size = sizeof fault;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &fault, &size) != 0) throwErrno(what);
    if (fault != 0) {
        errno = fault;
        throwErrno(what);
    }
}

}  // namespace board
