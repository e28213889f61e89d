// The remote devices of the board: one emulated controller each, served by a real BlueZ on their
// own machine. They obey commands from a serial line.

#include "L2cap.h"
#include "Management.h"
#include "Poller.h"
#include "RadioBridge.h"
#include "SerialLine.h"
#include "Tone.h"
#include "UniqueFd.h"
#include "hwcommon/Sdbus.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using board::UniqueFd;

constexpr const char* bluez = "org.bluez";
constexpr const char* adapterInterface = "org.bluez.Adapter1";
constexpr const char* deviceInterface = "org.bluez.Device1";
constexpr const char* agentInterface = "org.bluez.Agent1";
constexpr const char* emulatorSocket = "/tmp/bt-server-bredrle";

enum Feature : unsigned {
    AUDIO_SINK = 1,  ///< takes music and can tell what it was played
    HID = 2,         ///< accepts HID channels
    REFUSES = 4,     ///< refuses every pairing
};

/// One remote device. The vendor is a Bluetooth SIG company identifier.
struct Character {
    const char* key;   ///< its name in commands
    const char* name;  ///< its Bluetooth name
    std::uint32_t deviceClass;
    std::uint16_t vendor, product, version;
    unsigned features;
};

constexpr Character characters[] = {
    {"phone", "Phone", 0x5A020C, 0x004C, 0x7305, 0x1110, HID},
    {"speaker", "Speaker", 0x240414, 0x0057, 0x0202, 0x0100, AUDIO_SINK},
    {"headphones", "Headphones", 0x240418, 0x009E, 0x4017, 0x0251, AUDIO_SINK},
    {"keyboard", "Keyboard", 0x000540, 0x046D, 0xB33C, 0x0012, HID},
    {"refuser", "Refuser", 0x240404, 0x0047, 0x0F01, 0x0100, REFUSES},
    {"ghost", "Ghost", 0x240414, 0x0075, 0x0A01, 0x0100, 0},
    {"twin1", "Twin", 0x240414, 0x0057, 0x0301, 0x0100, 0},
    {"twin2", "Twin", 0x240418, 0x0057, 0x0302, 0x0100, 0},
};

struct Device {
    const Character* character = nullptr;
    int hci = -1;
    std::string address;
    std::vector<UniqueFd> channels;  ///< L2CAP channels that it opened or accepted
    UniqueFd sound, soundControl;
    std::unique_ptr<board::Tone> tone;

    std::string adapterPath() const { return "/org/bluez/hci" + std::to_string(hci); }
    std::string pathOf(std::string remote) const {
        for (char& c : remote) {
            if (c == ':') c = '_';
        }
        return adapterPath() + "/dev_" + remote;
    }
};

void start(const std::vector<std::string>& command) {
    const pid_t pid = fork();
    if (pid < 0) board::throwErrno("fork");
    if (pid > 0) return;
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    // Program name and last argument tell the outputs apart.
    const std::string log =
        "/run/" + command[0].substr(command[0].rfind('/') + 1) + "-" + command.back() + ".log";
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    execv(argv[0], argv.data());
    std::perror(argv[0]);
    _exit(127);
}

/// Retries for a minute, then passes the last failure on.
template <class Work>
auto eventually(Work work) -> decltype(work()) {
    const auto deadline = Clock::now() + 60s;
    for (;;) {
        try {
            return work();
        } catch (const std::exception&) {
            if (Clock::now() > deadline) throw;
        }
        std::this_thread::sleep_for(50ms);
    }
}

class Hci {
public:
    explicit Hci(int device) : fd_(hci_open_dev(device)) {
        if (!fd_) board::throwErrno("hci" + std::to_string(device));
    }
    void setClass(std::uint32_t deviceClass) {
        if (hci_write_class_of_dev(fd_.get(), deviceClass, 20000) != 0) {
            board::throwErrno("writing the class of device");
        }
    }
    void restart(int device) {
        if (ioctl(fd_.get(), HCIDEVDOWN, device) != 0 || ioctl(fd_.get(), HCIDEVUP, device) != 0) {
            board::throwErrno("restarting hci" + std::to_string(device));
        }
    }

private:
    UniqueFd fd_;
};

/// Tells the kernel the vendor and product for a device's inquiry response.
void setDeviceId(int device, const Character& character) {
    constexpr std::uint16_t vendorIsBluetooth = 1;
    std::vector<std::uint8_t> parameters;
    for (const std::uint16_t number :
         {vendorIsBluetooth, character.vendor, character.product, character.version}) {
        parameters.push_back(static_cast<std::uint8_t>(number & 0xFF));
        parameters.push_back(static_cast<std::uint8_t>(number >> 8));
    }
    if (board::manage(device, board::SET_DEVICE_ID, parameters) != 0) {
        throw std::runtime_error("the kernel refused a device id");
    }
}

class RemoteDevices {
public:
    RemoteDevices(const std::string& radioLine, const std::string& commandLine)
        : bridge_(emulatorSocket, radioLine),
          commands_(board::openRaw(commandLine.c_str())),
          bus_(sdbus::createSystemBusConnection()) {
        for (const Character& character : characters) {
            Device& device = devices_[character.key];
            device.character = &character;
            device.hci = bridge_.addDevice(character.key);
        }
        start({"/usr/libexec/bluetooth/bluetoothd", "-f", "/etc/bluetooth/remote.conf",
               "--noplugin=input,avrcp"});
        serveAgent();
        bus_->enterEventLoopAsync();
        for (auto& [key, device] : devices_) setUp(device);
        for (auto& [key, device] : devices_) finishSetUp(device);
        eventually([this] {
            const auto manager = hwcommon::proxyFor(*bus_, bluez, "/org/bluez");
            manager->callMethod("RegisterAgent")
                .onInterface("org.bluez.AgentManager1")
                .withArguments(sdbus::ObjectPath(agentPath), std::string("NoInputNoOutput"));
            manager->callMethod("RequestDefaultAgent")
                .onInterface("org.bluez.AgentManager1")
                .withArguments(sdbus::ObjectPath(agentPath));
        });
        // Comes after the agent, whose registration makes BlueZ set every adapter pairable.
        for (auto& [key, device] : devices_) {
            const bool pairable = (device.character->features & REFUSES) == 0;
            const auto proxy = adapter(device);
            eventually([&] { set(*proxy, "Pairable", pairable); });
        }
        poller_.add(commands_.get(),
                    [this](const std::uint8_t* data, std::size_t size) {
                        text_.append(reinterpret_cast<const char*>(data), size);
                        std::size_t end = 0;
                        while ((end = text_.find('\n')) != std::string::npos) {
                            const std::string line = text_.substr(0, end);
                            text_.erase(0, end + 1);
                            obey(line);
                        }
                    },
                    {});
    }

    void run() {
        poller_.setTick(500ms, [this] { serveChannels(); });
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

    std::unique_ptr<sdbus::IProxy> adapter(const Device& device) {
        return hwcommon::proxyFor(*bus_, bluez, device.adapterPath());
    }

    template <class Value>
    void set(sdbus::IProxy& proxy, const char* property, Value value) {
        proxy.setProperty(property).onInterface(adapterInterface).toValue(value);
    }

    void setUp(Device& device) {
        const auto proxy = adapter(device);
        eventually([&] {
            device.address =
                proxy->getProperty("Address").onInterface(adapterInterface).get<std::string>();
            set(*proxy, "Powered", true);
            set(*proxy, "Alias", std::string(device.character->name));
            set(*proxy, "Discoverable", true);
        });
        setDeviceId(device.hci, *device.character);
        rememberEndpoints(device);
        if ((device.character->features & HID) != 0) {
            listen(device, board::psmHidControl);
            listen(device, board::psmHidInterrupt);
        }
        if ((device.character->features & AUDIO_SINK) != 0) {
            start({"/usr/libexec/bluealsa/bluealsa", "-p", "a2dp-sink", "-i",
                   "hci" + std::to_string(device.hci), "-B", device.character->key});
        }
    }

    /// Tells a device's BlueZ the board's music endpoints in advance. Otherwise it asks for them
    /// during the first configuration and answers that with the wrong label.
    void rememberEndpoints(const Device& device) {
        if ((device.character->features & AUDIO_SINK) == 0) return;
        // The emulator numbers its controllers in their addresses; the board's is the last.
        char boardAddress[18];
        std::snprintf(boardAddress, sizeof boardAddress, "00:AA:01:%02zX:00:42", devices_.size());
        const std::filesystem::path folder = "/var/lib/bluetooth/" + device.address + "/cache";
        std::filesystem::create_directories(folder);
        // Number = direction (source), codec (SBC), delay reports, the codec's capabilities.
        std::ofstream(folder / boardAddress) << "[Endpoints]\n01=00:00:00:ffff02fa\n"
                                                "02=00:00:00:ffff02fa\n";
    }

    /// Sets the class last, because the kernel writes its own class whenever a service registers.
    void finishSetUp(Device& device) {
        if ((device.character->features & AUDIO_SINK) != 0) {
            eventually([&] {
                const auto ids = adapter(device)
                                     ->getProperty("UUIDs")
                                     .onInterface(adapterInterface)
                                     .get<std::vector<std::string>>();
                for (const std::string& id : ids) {
                    if (id.rfind("0000110b", 0) == 0) return;  // audio sink
                }
                throw std::runtime_error(std::string(device.character->name) +
                                         " offers no audio sink");
            });
        }
        eventually([&] { Hci(device.hci).setClass(device.character->deviceClass); });
        auto proxy = adapter(device);
        proxy->uponSignal("PropertiesChanged")
            .onInterface("org.freedesktop.DBus.Properties")
            .call([&device](const std::string&,
                            const std::map<std::string, sdbus::Variant>& changed,
                            const std::vector<std::string>&) {
                const auto entry = changed.find("Class");
                if (entry == changed.end() ||
                    entry->second.get<std::uint32_t>() == device.character->deviceClass) {
                    return;
                }
                try {
                    Hci(device.hci).setClass(device.character->deviceClass);
                } catch (const std::exception& error) {
                    std::fprintf(stderr, "%s: %s\n", device.character->name, error.what());
                }
            });
        hwcommon::subscribe(*proxy);
        watchers_.push_back(std::move(proxy));
    }

    void listen(Device& device, std::uint16_t psm) {
        UniqueFd listener = board::l2capSocket(device.address, psm);
        if (::listen(listener.get(), 4) != 0) board::throwErrno("listening for HID channels");
        listeners_.emplace_back(std::move(listener), &device);
    }

    /// Accepts new HID channels, and closes a channel whose link has ended.
    void serveChannels() {
        for (const auto& [listener, device] : listeners_) {
            UniqueFd channel(
                accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (channel) device->channels.push_back(std::move(channel));
        }
        for (auto& [key, device] : devices_) {
            auto& channels = device.channels;
            for (auto channel = channels.begin(); channel != channels.end();) {
                const bool open = board::channelIsOpen(channel->get());
                channel = open ? channel + 1 : channels.erase(channel);
            }
        }
    }

    std::string boardAddress() const {
        std::string address = bridge_.radioAddress();
        if (address.empty()) throw std::runtime_error("the board's controller was never attached");
        return address;
    }

    std::unique_ptr<sdbus::IProxy> boardSeenBy(const Device& device) {
        return hwcommon::proxyFor(*bus_, bluez, device.pathOf(boardAddress()));
    }

    bool knowsBoard(const Device& device, const char* property) {
        try {
            return boardSeenBy(device)
                ->getProperty(property)
                .onInterface(deviceInterface)
                .get<bool>();
        } catch (const std::exception&) {
            return false;  // the device has not seen the board yet
        }
    }

    /// Searches for the board, as the device's user would, and pairs.
    std::string pair(Device& device) {
        if (knowsBoard(device, "Paired")) throw std::runtime_error("it is paired already");
        const auto proxy = adapter(device);
        proxy->callMethod("StartDiscovery").onInterface(adapterInterface);
        const auto stop = [&proxy] {
            proxy->callMethod("StopDiscovery").onInterface(adapterInterface);
        };
        try {
            eventually(
                [&] { boardSeenBy(device)->getProperty("Address").onInterface(deviceInterface); });
        } catch (const std::exception&) {
            stop();
            throw std::runtime_error(
                "the board was not found within a minute; is it discoverable?");
        }
        stop();
        boardSeenBy(device)->callMethod("Pair").onInterface(deviceInterface).withTimeout(60s);
        return {};
    }

    /// Opens a channel to the board's service directory and keeps it open, as phones do.
    std::string connect(Device& device) {
        UniqueFd channel = board::l2capSocket(device.address, 0);
        board::l2capConnect(channel.get(), boardAddress(), board::psmServiceDiscovery, 60000);
        device.channels.push_back(std::move(channel));
        return {};
    }

    std::string disconnect(Device& device) {
        device.channels.clear();
        boardSeenBy(device)->callMethod("Disconnect").onInterface(deviceInterface);
        return {};
    }

    std::string forget(Device& device) {
        device.channels.clear();
        if (knowsBoard(device, "Paired")) {
            adapter(device)
                ->callMethod("RemoveDevice")
                .onInterface(adapterInterface)
                .withArguments(sdbus::ObjectPath(device.pathOf(boardAddress())));
            rememberEndpoints(device);
        }
        return {};
    }

    std::string comeBack(Device& device) {
        bridge_.comeBack(device.character->key);
        Hci(device.hci).restart(device.hci);
        set(*adapter(device), "Discoverable", true);
        Hci(device.hci).setClass(device.character->deviceClass);
        return {};
    }

    std::string capture(Device& device) {
        const std::string service = std::string("org.bluealsa.") + device.character->key;
        std::string path = "/org/bluealsa/hci" + std::to_string(device.hci) + "/dev_" +
                           boardAddress() + "/a2dpsnk/source";
        for (char& c : path) {
            if (c == ':') c = '_';
        }
        constexpr const char* pcmInterface = "org.bluealsa.PCM1";
        const auto pcm = hwcommon::proxyFor(*bus_, service, path);
        sdbus::UnixFd sound, control;
        unsigned rate = 0, channels = 0;
        try {
            // The audio format is negotiated shortly after the connection.
            eventually([&] {
                rate = pcm->getProperty("Sampling").onInterface(pcmInterface).get<std::uint32_t>();
                channels =
                    pcm->getProperty("Channels").onInterface(pcmInterface).get<std::uint8_t>();
            });
            pcm->callMethod("Open").onInterface(pcmInterface).storeResultsTo(sound, control);
        } catch (const sdbus::Error& error) {
            throw std::runtime_error("no music channel from the board: " + error.getMessage());
        }
        endCapture(device);
        device.tone = std::make_unique<board::Tone>(channels, rate);
        device.sound = UniqueFd(sound.release());
        device.soundControl = UniqueFd(control.release());
        poller_.add(device.sound.get(),
                    [&device](const std::uint8_t* data, std::size_t size) {
                        device.tone->feed(data, size);
                    },
                    {});
        return {};
    }

    void endCapture(Device& device) {
        if (device.sound) poller_.remove(device.sound.get());
        device.sound.reset();
        device.soundControl.reset();
    }

    std::string heard(Device& device) {
        if (!device.tone) throw std::runtime_error("it was not told to capture");
        endCapture(device);
        return device.tone->report();
    }

    std::string show(Device& device) {
        std::ostringstream out;
        char deviceClass[9];
        std::snprintf(deviceClass, sizeof deviceClass, "0x%06X", device.character->deviceClass);
        out << device.character->key << " address=" << device.address
            << " name=" << device.character->name << " class=" << deviceClass
            << " paired=" << knowsBoard(device, "Paired")
            << " connected=" << knowsBoard(device, "Connected")
            << " channels=" << device.channels.size();
        return out.str();
    }

    std::string vanish(Device& device) {
        bridge_.vanish(device.character->key);
        return {};
    }

    std::string vanishWhenConnected(Device& device) {
        bridge_.vanishWhenConnected(device.character->key);
        return {};
    }

    using Action = std::string (RemoteDevices::*)(Device&);

    std::string obeyWords(const std::string& line) {
        static const std::map<std::string, Action> actions{
            {"pair", &RemoteDevices::pair},
            {"connect", &RemoteDevices::connect},
            {"disconnect", &RemoteDevices::disconnect},
            {"forget", &RemoteDevices::forget},
            {"vanish", &RemoteDevices::vanish},
            {"vanish-when-connected", &RemoteDevices::vanishWhenConnected},
            {"return", &RemoteDevices::comeBack},
            {"capture", &RemoteDevices::capture},
            {"heard", &RemoteDevices::heard},
            {"show", &RemoteDevices::show}};
        std::istringstream words(line);
        std::string first, second;
        words >> first >> second;
        if (first == "list") {
            std::string out;
            for (auto& [key, device] : devices_) out += show(device) + "\n";
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
        return (this->*action->second)(device->second);
    }

    /// Answers each command with its lines of text, then "ok" or "error: " and the reason.
    void obey(const std::string& line) {
        std::string answer;
        try {
            serveChannels();
            answer = obeyWords(line);
            if (!answer.empty()) answer += "\n";
            answer += "ok\n";
        } catch (const std::exception& error) {
            answer = std::string("error: ") + error.what() + "\n";
        }
        poller_.send(commands_.get(), answer);
    }

    board::RadioBridge bridge_;
    UniqueFd commands_;
    std::unique_ptr<sdbus::IConnection> bus_;
    std::unique_ptr<sdbus::IObject> agent_;
    std::map<std::string, Device> devices_;
    std::vector<std::pair<UniqueFd, Device*>> listeners_;
    std::vector<std::unique_ptr<sdbus::IProxy>> watchers_;
    board::Poller poller_;
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
