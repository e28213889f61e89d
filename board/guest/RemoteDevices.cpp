// The remote devices of the board, each with an emulated controller, served by a real BlueZ on a
// machine of their own. They obey commands from a serial line.

#include "Poller.h"
#include "RadioBridge.h"
#include "RemoteDevice.h"
#include "SerialLine.h"
#include "UniqueFd.h"
#include "hwcommon/Sdbus.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using board::Character;
using board::RemoteDevice;
using board::UniqueFd;

constexpr const char* agentInterface = "org.bluez.Agent1";
constexpr const char* emulatorSocket = "/tmp/bt-server-bredrle";

constexpr Character characters[] = {
    {"phone", "Phone", 0x5A020C, 0x004C, 0x7305, 0x1110, board::HID},
    {"speaker", "Speaker", 0x240414, 0x0057, 0x0202, 0x0100, board::AUDIO_SINK},
    {"headphones", "Headphones", 0x240418, 0x009E, 0x4017, 0x0251, board::AUDIO_SINK},
    {"keyboard", "Keyboard", 0x000540, 0x046D, 0xB33C, 0x0012, board::HID},
    {"refuser", "Refuser", 0x240404, 0x0047, 0x0F01, 0x0100, board::REFUSES},
    {"ghost", "Ghost", 0x240414, 0x0075, 0x0A01, 0x0100, 0},
    {"twin1", "Twin", 0x240414, 0x0057, 0x0301, 0x0100, 0},
    {"twin2", "Twin", 0x240418, 0x0057, 0x0302, 0x0100, 0},
};

class RemoteDevices {
public:
    RemoteDevices(const std::string& radioLine, const std::string& commandLine)
        : bridge_(emulatorSocket, radioLine),
          commands_(board::openRaw(commandLine.c_str())),
          bus_(sdbus::createSystemBusConnection()) {
        const RemoteDevice::Machine machine{bridge_, *bus_, poller_, std::size(characters)};
        for (const Character& character : characters) {
            devices_[character.key] = std::make_unique<RemoteDevice>(machine, character);
        }
        board::start({"/usr/libexec/bluetooth/bluetoothd", "-f", "/etc/bluetooth/remote.conf",
                      "--noplugin=input,avrcp"});
        serveAgent();
        bus_->enterEventLoopAsync();
        for (auto& [key, device] : devices_) device->setUp();
        for (auto& [key, device] : devices_) device->finishSetUp();
        registerAgent();
        for (auto& [key, device] : devices_) device->setPairable();
        poller_.add(commands_.get(), [this](const std::uint8_t* data, std::size_t size) {
            text_.append(reinterpret_cast<const char*>(data), size);
            std::size_t end = 0;
            while ((end = text_.find('\n')) != std::string::npos) {
                const std::string line = text_.substr(0, end);
                text_.erase(0, end + 1);
                obey(line);
            }
        });
    }

    void run() {
        poller_.setTick(500ms, [this] {
            for (auto& [key, device] : devices_) device->serveChannels();
        });
        poller_.run();
    }

private:
    static constexpr const char* agentPath = "/org/corvane/remote";

    /// Accepts pairings without a key: the devices have neither keys nor displays.
    void serveAgent() {
        agent_ = sdbus::createObject(*bus_, sdbus::ObjectPath(agentPath));
        using hwcommon::Method;
        hwcommon::serve(
            *agent_, agentInterface, Method{"Release", [] {}}, Method{"Cancel", [] {}},
            Method{"RequestAuthorization", [](const sdbus::ObjectPath&) {}},
            Method{"RequestConfirmation", [](const sdbus::ObjectPath&, const std::uint32_t&) {}},
            Method{"AuthorizeService", [](const sdbus::ObjectPath&, const std::string&) {}});
    }

    void registerAgent() {
        board::eventually([this] {
            const auto manager = hwcommon::proxyFor(*bus_, board::bluez, "/org/bluez");
            manager->callMethod("RegisterAgent")
                .onInterface("org.bluez.AgentManager1")
                .withArguments(sdbus::ObjectPath(agentPath), std::string("NoInputNoOutput"));
            manager->callMethod("RequestDefaultAgent")
                .onInterface("org.bluez.AgentManager1")
                .withArguments(sdbus::ObjectPath(agentPath));
        });
    }

    using Action = std::string (RemoteDevice::*)();

    std::string obeyWords(const std::string& line) {
        static const std::map<std::string, Action> actions{
            {"pair", &RemoteDevice::pair},
            {"connect", &RemoteDevice::connect},
            {"disconnect", &RemoteDevice::disconnect},
            {"forget", &RemoteDevice::forget},
            {"vanish", &RemoteDevice::vanish},
            {"vanish-when-connected", &RemoteDevice::vanishWhenConnected},
            {"return", &RemoteDevice::comeBack},
            {"capture", &RemoteDevice::capture},
            {"heard", &RemoteDevice::heard},
            {"show", &RemoteDevice::show}};
        std::istringstream words(line);
        std::string first, second;
        words >> first >> second;
        if (first == "list") {
            std::string out;
            for (const auto& [key, device] : devices_) out += device->show() + "\n";
            out.pop_back();
            return out;
        }
        if (first == "refresh-radio") {
            bridge_.refreshRadio();
            return {};
        }
        const auto device = devices_.find(first);
        const auto action = actions.find(second);
        if (device == devices_.end()) {
            std::string known;
            for (const auto& entry : devices_) known += " " + entry.first;
            throw std::runtime_error("no device \"" + first + "\"; there are:" + known +
                                     "; or: list, refresh-radio");
        }
        if (action == actions.end()) {
            std::string known;
            for (const auto& entry : actions) known += " " + entry.first;
            throw std::runtime_error("a device cannot \"" + second + "\"; it can:" + known);
        }
        return ((*device->second).*action->second)();
    }

    /// Answers each command with its lines of text, then "ok" or "error: " and the reason.
    void obey(const std::string& line) {
        std::string answer;
        try {
            for (auto& [key, device] : devices_) device->serveChannels();
            answer = obeyWords(line);
            if (!answer.empty()) answer += "\n";
            answer += "ok\n";
        } catch (const std::exception& error) {
            answer = std::string("error: ") + error.what() + "\n";
        }
        poller_.send(commands_.get(), answer);
    }

    board::RadioBridge bridge_;
    board::Poller poller_;
    UniqueFd commands_;
    std::unique_ptr<sdbus::IConnection> bus_;
    std::unique_ptr<sdbus::IObject> agent_;
    std::map<std::string, std::unique_ptr<RemoteDevice>> devices_;
    std::string text_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: remote-devices RADIO_LINE COMMAND_LINE\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGCHLD, SIG_IGN);
    // The caller waits on this pipe until the devices are ready.
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return 1;
    const pid_t pid = fork();
    if (pid < 0) return 1;
    if (pid > 0) {
        ::close(ends[1]);
        char ready = 0;
        return ::read(ends[0], &ready, 1) == 1 ? 0 : 1;
    }
    try {
        RemoteDevices devices(argv[1], argv[2]);
        if (::write(ends[1], "", 1) != 1) return 1;
        ::close(ends[1]);
        devices.run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "remote-devices: %s\n", error.what());
    }
    return 1;
}
