#include "RadioBridge.h"

#include "Management.h"
#include "SerialLine.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <stdexcept>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>

namespace board {
namespace {

// HCI events and commands (Bluetooth Core, Host Controller Interface).
constexpr std::uint8_t connectionComplete = 0x03;
constexpr std::uint8_t disconnectionComplete = 0x05;
constexpr std::uint8_t commandComplete = 0x0E;
constexpr std::uint8_t completedPackets = 0x13;
constexpr std::uint8_t connectionTimeout = 0x08;
constexpr std::uint16_t readAddress = 0x1009;
constexpr std::uint16_t resetCommand = 0x0C03;
constexpr std::uint16_t handleMask = 0x0FFF;

// The emulator answers within milliseconds unless the machine is busy.
constexpr std::chrono::milliseconds linkEndTime{10000};

UniqueFd connectTo(const std::string& path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (!fd || connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throwErrno(path);
    }
    return fd;
}

std::uint16_t number16(const Bytes& packet, std::size_t at) {
    return static_cast<std::uint16_t>(packet[at] | packet[at + 1] << 8);
}

std::string addressAt(const Bytes& packet, std::size_t at) {
    char text[18];
    std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", packet[at + 5],
                  packet[at + 4], packet[at + 3], packet[at + 2], packet[at + 1], packet[at]);
    return text;
}

/// Attaches a line and waits until the kernel has initialised the controller. Lines are attached
/// one at a time, because the kernel waits only 2 s for each answer; a busy build machine may still
/// miss that, hence several attempts.
int attachForSure(int line) {
    constexpr int attempts = 20;
    constexpr int lineDisciplineTty = 0;
    const UniqueFd hci(socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, BTPROTO_HCI));
    for (int attempt = 0; attempt < attempts; ++attempt) {
        tcflush(line, TCIOFLUSH);  // late answers
        const int device = attachH4(line);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        bool begun = false;
        while (std::chrono::steady_clock::now() < deadline) {
            hci_dev_info info{};
            info.dev_id = static_cast<std::uint16_t>(device);
            const bool running = ioctl(hci.get(), HCIGETDEVINFO, &info) == 0 &&
                                 hci_test_bit(HCI_RUNNING, &info.flags) != 0;
            // The kernel does not know the index until the controller has answered everything.
            if (manage(device, READ_INFO, {}) == 0) return device;
            if (begun && !running) break;  // the kernel gave up
            begun = running;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ioctl(line, TIOCSETD, &lineDisciplineTty);
    }
    throw std::runtime_error("a remote device's controller does not start");
}

}  // namespace

RadioBridge::RadioBridge(std::string emulator, const std::string& radioLine)
    : emulator_(std::move(emulator)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throwErrno("pipe");
    wakeRead_ = UniqueFd(ends[0]);
    wakeWrite_ = UniqueFd(ends[1]);
    poller_.add(wakeRead_.get(), [this](const std::uint8_t*, std::size_t) {
        std::vector<std::function<void()>> work;
        {
            const std::lock_guard lock(mutex_);
            work.swap(work_);
        }
        for (const auto& each : work) each();
    });
    radio_.line = openRaw(radioLine.c_str());
    serve(radio_);
    thread_ = std::thread([this] {
        try {
            poller_.run();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "radio bridge: %s\n", error.what());
            std::abort();  // the machine is useless without its radios
        }
    });
}

RadioBridge::~RadioBridge() {
    try {
        post([this] { poller_.stop(); });
    } catch (const std::exception&) {
        std::abort();  // there is no other way to end the thread
    }
    thread_.join();
}

void RadioBridge::post(std::function<void()> work) {
    {
        const std::lock_guard lock(mutex_);
        work_.push_back(std::move(work));
    }
    if (::write(wakeWrite_.get(), "", 1) != 1) throwErrno("waking the radio bridge");
}

std::string RadioBridge::radioAddress() const {
    const std::lock_guard lock(mutex_);
    return radio_.address;
}

int RadioBridge::addDevice(const std::string& name) {
    Port port;
    port.line = UniqueFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!port.line || grantpt(port.line.get()) != 0 || unlockpt(port.line.get()) != 0) {
        throwErrno("opening a pseudo terminal");
    }
    port.lineEnd = openRaw(ptsname(port.line.get()));
    const int lineEnd = port.lineEnd.get();

    std::promise<void> plugged;
    post([this, &port, &name, &plugged] {
        Port& added = ports_[name] = std::move(port);
        serve(added);
        plug(added);
        plugged.set_value();
    });
    plugged.get_future().wait();
    return attachForSure(lineEnd);
}

void RadioBridge::serve(Port& port) {
    poller_.add(port.line.get(), [this, &port](const std::uint8_t* data, std::size_t size) {
        fromLine(port, data, size);
    });
}

void RadioBridge::plug(Port& port) {
    if (port.controller) return;
    port.controller = connectTo(emulator_);
    port.fromLine.clear();
    port.fromController.clear();
    poller_.add(
        port.controller.get(),
        [this, &port](const std::uint8_t* data, std::size_t size) {
            fromController(port, data, size);
        },
        [] { throw std::runtime_error("the emulator dropped a controller"); });
}

void RadioBridge::endLinks(Port& port) {
    // The emulator has no link supervision. End the links with the reason that the other side would
    // see after the supervision timeout.
    for (const auto& [handle, other] : port.links) {
        const std::uint8_t disconnect[] = {H4_COMMAND,
                                           0x06,
                                           0x04,
                                           3,
                                           static_cast<std::uint8_t>(handle & 0xFF),
                                           static_cast<std::uint8_t>(handle >> 8),
                                           connectionTimeout};
        if (::write(port.controller.get(), disconnect, sizeof disconnect) < 0) break;
    }
    // Wait for the ends: closing a connection at once would lose the commands.
    Bytes packet;
    while (!port.links.empty()) {
        pollfd entry{port.controller.get(), POLLIN, 0};
        std::uint8_t bytes[512];
        if (::poll(&entry, 1, static_cast<int>(linkEndTime.count())) <= 0) break;
        const ssize_t got = ::read(port.controller.get(), bytes, sizeof bytes);
        if (got <= 0) break;
        port.fromController.feed(bytes, static_cast<std::size_t>(got));
        while (port.fromController.next(packet)) {
            if (packet[0] == H4_EVENT) watchEvents(port, packet);
        }
    }
    port.links.clear();
}

void RadioBridge::unplug(Port& port) {
    if (!port.controller) return;
    poller_.remove(port.controller.get());
    endLinks(port);
    port.vanishes = false;
    port.controller.reset();
}

void RadioBridge::fromLine(Port& port, const std::uint8_t* data, std::size_t size) {
    port.fromLine.feed(data, size);
    Bytes packet;
    while (port.fromLine.next(packet)) {
        if (packet[0] == H4_RADIO_POWER) {
            if (packet[1] == RADIO_ON) {
                plug(port);
            } else {
                unplug(port);
            }
            poller_.send(port.line.get(), packet.data(), packet.size());
        } else if (packet[0] == H4_ACL) {
            carryData(port, packet);
        } else if (port.controller) {
            if (packet[0] == H4_COMMAND && number16(packet, 1) == resetCommand) endLinks(port);
            poller_.send(port.controller.get(), packet.data(), packet.size());
        }
    }
}

void RadioBridge::fromController(Port& port, const std::uint8_t* data, std::size_t size) {
    port.fromController.feed(data, size);
    Bytes packet;
    while (port.controller && port.fromController.next(packet)) {
        poller_.send(port.line.get(), packet.data(), packet.size());
        if (packet[0] != H4_EVENT) continue;
        watchEvents(port, packet);
        if (port.vanishes && !port.links.empty()) unplug(port);
    }
}

void RadioBridge::watchEvents(Port& port, const Bytes& event) {
    if (event[1] == connectionComplete && event.size() >= 12 && event[3] == 0) {
        port.links[number16(event, 4)] = addressAt(event, 6);
    } else if (event[1] == disconnectionComplete && event.size() >= 6 && event[3] == 0) {
        port.links.erase(number16(event, 4));
    } else if (event[1] == commandComplete && event.size() >= 13 &&
               number16(event, 4) == readAddress && event[6] == 0) {
        const std::lock_guard lock(mutex_);
        port.address = addressAt(event, 7);
    }
}

void RadioBridge::carryData(Port& from, Bytes& packet) {
    const std::uint16_t handle = number16(packet, 1) & handleMask;
    const auto link = from.links.find(handle);
    if (link == from.links.end()) return;  // the link has ended meanwhile
    // The sender may continue once its controller reports the packet as sent.
    const std::uint8_t completed[] = {H4_EVENT,
                                      completedPackets,
                                      5,
                                      1,
                                      static_cast<std::uint8_t>(handle & 0xFF),
                                      static_cast<std::uint8_t>(handle >> 8),
                                      1,
                                      0};
    poller_.send(from.line.get(), completed, sizeof completed);

    const auto deliver = [&](Port& to) {
        if (to.address != link->second) return;
        for (const auto& [toHandle, other] : to.links) {
            if (other != from.address) continue;
            // A host marks the start of a message with 0 or 2, a controller always with 2.
            const unsigned flags = packet[2] >> 4 & 3;
            const unsigned head = toHandle | (flags == 0 ? 2U : flags) << 12;
            packet[1] = static_cast<std::uint8_t>(head & 0xFF);
            packet[2] = static_cast<std::uint8_t>(head >> 8);
            poller_.send(to.line.get(), packet.data(), packet.size());
            return;
        }
    };
    deliver(radio_);
    for (auto& [name, port] : ports_) deliver(port);
}

}  // namespace board
