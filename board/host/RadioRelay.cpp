#include "RadioRelay.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>

namespace board {
namespace {

// i.MX6 Dual/Quad: base addresses of the GPIO controllers, 32 lines each. The data register comes
// first, the direction register second.
constexpr unsigned long gpioBase[] = {0x0209C000, 0x020A0000, 0x020A4000, 0x020A8000,
                                      0x020AC000, 0x020B0000, 0x020B4000};

std::vector<unsigned> enableLines(int wiring) {
    switch (wiring) {
        case 0:
            return {48, 153, 154};
        case 1:
            return {};
        case 2:
            return {49};
        default:
            throw std::invalid_argument("there is no wiring " + std::to_string(wiring) +
                                        "; choose 0, 1 or 2");
    }
}

}  // namespace

RadioRelay::RadioRelay(Poller& poller, int board, int remote, int monitor, int wiring)
    : poller_(poller), board_(board), remote_(remote), monitor_(monitor) {
    for (const unsigned number : enableLines(wiring)) {
        lines_.push_back({number, gpioBase[number / 32], number % 32});
    }
    poller_.add(board_, [this](const std::uint8_t* d, std::size_t n) { fromBoard(d, n); });
    poller_.add(remote_, [this](const std::uint8_t* d, std::size_t n) { fromRemote(d, n); });
    poller_.add(monitor_, [this](const std::uint8_t* d, std::size_t n) { fromMonitor(d, n); });
    poller_.send(monitor_, std::string("{\"execute\":\"qmp_capabilities\"}\n"));
}

void RadioRelay::remoteIsReady() {
    remoteReady_ = true;
    update();
}

void RadioRelay::poll() {
    if (monitorReady_ && !asking_ && !lines_.empty()) askForLine();
    if (lines_.empty()) update();
}

void RadioRelay::askForLine() {
    asking_ = true;
    std::ostringstream command;
    command << "xp /2wx 0x" << std::hex << lines_[asked_].dataRegister;
    const nlohmann::json request{{"execute", "human-monitor-command"},
                                 {"arguments", {{"command-line", command.str()}}}};
    poller_.send(monitor_, request.dump() + "\n");
}

void RadioRelay::fromMonitor(const std::uint8_t* data, std::size_t size) {
    monitorText_.append(reinterpret_cast<const char*>(data), size);
    std::size_t end = 0;
    while ((end = monitorText_.find('\n')) != std::string::npos) {
        const std::string line = monitorText_.substr(0, end);
        monitorText_.erase(0, end + 1);
        answer(line);
    }
}

void RadioRelay::answer(const std::string& line) {
    const auto message = nlohmann::json::parse(line);
    if (message.contains("error")) {
        throw std::runtime_error("the emulator's monitor refused a request: " + line);
    }
    if (!message.contains("return")) return;  // greeting or event
    if (!monitorReady_) {
        monitorReady_ = true;
        return;
    }
    // "00000000020a0000: 0x00010000 0x00010000": data, direction (1 is output).
    unsigned long address = 0, level = 0, direction = 0;
    char colon = 0;
    std::istringstream text(message["return"].get<std::string>());
    text >> std::hex >> address >> colon >> level >> direction;
    EnableLine& entry = lines_[asked_];
    if (!text || address != entry.dataRegister) {
        throw std::runtime_error("the emulator's monitor gave no GPIO registers: " + line);
    }
    entry.high = (direction >> entry.bit & 1) != 0 && (level >> entry.bit & 1) != 0;
    asked_ = (asked_ + 1) % lines_.size();
    if (asked_ != 0) {
        askForLine();
        return;
    }
    asking_ = false;
    update();
}

void RadioRelay::update() {
    const bool power =
        remoteReady_ && fault_ != Fault::Vanish &&
        std::all_of(lines_.begin(), lines_.end(), [](const EnableLine& l) { return l.high; });
    if (power == powered_) return;
    powered_ = power;
    resets_ = false;
    switchController(power);
}

void RadioRelay::switchController(bool on) {
    controller_ = false;
    boardStream_.clear();
    const std::uint8_t packet[] = {H4_RADIO_POWER, on ? RADIO_ON : RADIO_OFF};
    poller_.send(remote_, packet, sizeof packet);
}

bool RadioRelay::misbehave(const std::string& fault) {
    static const std::map<std::string, Fault> faults{{"normal", Fault::None},
                                                     {"reset", Fault::None},
                                                     {"silent", Fault::Silent},
                                                     {"refuse", Fault::Refuse},
                                                     {"vanish", Fault::Vanish}};
    const auto wanted = faults.find(fault);
    if (wanted == faults.end()) return false;
    fault_ = wanted->second;
    if (fault == "reset" && powered_) {
        resets_ = true;
        switchController(false);
        switchController(true);
    }
    update();
    return true;
}

void RadioRelay::refuse(const Bytes& command) {
    if (command[0] != H4_COMMAND) return;
    // Command Status (Bluetooth Core, Host Controller Interface): command disallowed; one more
    // command may follow.
    const std::uint8_t status[] = {H4_EVENT, 0x0F, 4, 0x0C, 1, command[1], command[2]};
    poller_.send(board_, status, sizeof status);
}

void RadioRelay::fromBoard(const std::uint8_t* data, std::size_t size) {
    if (!controller_) return;
    boardStream_.feed(data, size);
    Bytes packet;
    while (boardStream_.next(packet)) {
        if (fault_ == Fault::Refuse) {
            refuse(packet);
        } else if (fault_ == Fault::None && packet[0] != H4_RADIO_POWER) {
            poller_.send(remote_, packet.data(), packet.size());
        }
    }
}

void RadioRelay::fromRemote(const std::uint8_t* data, std::size_t size) {
    remoteStream_.feed(data, size);
    Bytes packet;
    while (remoteStream_.next(packet)) {
        if (packet[0] == H4_RADIO_POWER) {
            controller_ = powered_ && packet[1] == RADIO_ON;
            if (controller_ && resets_) {
                resets_ = false;
                const std::uint8_t hardwareError[] = {H4_EVENT, 0x10, 1, 0};
                poller_.send(board_, hardwareError, sizeof hardwareError);
            }
        } else if (controller_ && fault_ == Fault::None) {
            poller_.send(board_, packet.data(), packet.size());
        }
    }
}

}  // namespace board
