#include "RemoteDevice.h"

#include "L2cap.h"
#include "Management.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace board {

namespace {

using namespace std::chrono_literals;

constexpr const char* adapterInterface = "org.bluez.Adapter1";
constexpr const char* deviceInterface = "org.bluez.Device1";

std::string withUnderscores(std::string address) {
    for (char& c : address) {
        if (c == ':') c = '_';
    }
    return address;
}

class Hci {
public:
    explicit Hci(int device) : fd_(hci_open_dev(device)) {
        if (!fd_) throwErrno("hci" + std::to_string(device));
    }
    void setClass(std::uint32_t deviceClass) {
        if (hci_write_class_of_dev(fd_.get(), deviceClass, 20000) != 0) {
            throwErrno("writing the class of device");
        }
    }
    void restart(int device) {
        if (ioctl(fd_.get(), HCIDEVDOWN, device) != 0 || ioctl(fd_.get(), HCIDEVUP, device) != 0) {
            throwErrno("restarting hci" + std::to_string(device));
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
    if (manage(device, SET_DEVICE_ID, parameters) != 0) {
        throw std::runtime_error("the kernel refused a device id");
    }
}

}  // namespace

void start(const std::vector<std::string>& command) {
    const pid_t pid = fork();
    if (pid < 0) throwErrno("fork");
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

RemoteDevice::RemoteDevice(const Machine& machine, const Character& character)
    : machine_(machine), character_(character), hci_(machine.bridge.addDevice(character.key)) {}

std::unique_ptr<sdbus::IProxy> RemoteDevice::adapter() const {
    return hwcommon::proxyFor(machine_.bus, bluez, adapterPath());
}

template <class Value>
void RemoteDevice::set(const char* property, Value value) {
    adapter()->setProperty(property).onInterface(adapterInterface).toValue(value);
}

void RemoteDevice::setPairable() {
    eventually([this] { set("Pairable", !can(REFUSES)); });
}

void RemoteDevice::setUp() {
    const auto proxy = adapter();
    eventually([&] {
        address_ = proxy->getProperty("Address").onInterface(adapterInterface).get<std::string>();
        set("Powered", true);
        set("Alias", std::string(character_.name));
        set("Discoverable", true);
    });
    setDeviceId(hci_, character_);
    rememberEndpoints();
    if (can(HID)) {
        listen(psmHidControl);
        listen(psmHidInterrupt);
    }
    if (can(AUDIO_SINK)) {
        start({"/usr/libexec/bluealsa/bluealsa", "-p", "a2dp-sink", "-i",
               "hci" + std::to_string(hci_), "-B", character_.key});
    }
}

void RemoteDevice::rememberEndpoints() {
    if (!can(AUDIO_SINK)) return;
    // The emulator numbers its controllers in their addresses; the board's is the last.
    char boardAddress[18];
    std::snprintf(boardAddress, sizeof boardAddress, "00:AA:01:%02zX:00:42", machine_.devices);
    const std::filesystem::path folder = "/var/lib/bluetooth/" + address_ + "/cache";
    std::filesystem::create_directories(folder);
    // Number = direction (source), codec (SBC), delay reports, the codec's capabilities.
    std::ofstream(folder / boardAddress) << "[Endpoints]\n01=00:00:00:ffff02fa\n"
                                            "02=00:00:00:ffff02fa\n";
}

void RemoteDevice::finishSetUp() {
    if (can(AUDIO_SINK)) {
        eventually([&] {
            const auto ids = adapter()
                                 ->getProperty("UUIDs")
                                 .onInterface(adapterInterface)
                                 .get<std::vector<std::string>>();
            for (const std::string& id : ids) {
                if (id.rfind("0000110b", 0) == 0) return;  // audio sink
            }
            throw std::runtime_error(std::string(character_.name) + " offers no audio sink");
        });
    }
    eventually([&] { Hci(hci_).setClass(character_.deviceClass); });
    watcher_ = adapter();
    watcher_->uponSignal("PropertiesChanged")
        .onInterface("org.freedesktop.DBus.Properties")
        .call([this](const std::string&, const std::map<std::string, sdbus::Variant>& changed,
                     const std::vector<std::string>&) {
            const auto entry = changed.find("Class");
            if (entry == changed.end() ||
                entry->second.get<std::uint32_t>() == character_.deviceClass) {
                return;
            }
            try {
                Hci(hci_).setClass(character_.deviceClass);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s: %s\n", character_.name, error.what());
            }
        });
    hwcommon::subscribe(*watcher_);
}

void RemoteDevice::listen(std::uint16_t psm) {
    UniqueFd listener = l2capSocket(address_, psm);
    if (::listen(listener.get(), 4) != 0) throwErrno("listening for HID channels");
    listeners_.push_back(std::move(listener));
}

void RemoteDevice::serveChannels() {
    for (const UniqueFd& listener : listeners_) {
        UniqueFd channel(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (channel) channels_.push_back(std::move(channel));
    }
    for (auto channel = channels_.begin(); channel != channels_.end();) {
        channel = channelIsOpen(channel->get()) ? channel + 1 : channels_.erase(channel);
    }
}

std::string RemoteDevice::boardAddress() const {
    std::string address = machine_.bridge.radioAddress();
    if (address.empty()) throw std::runtime_error("the board's controller was never attached");
    return address;
}

std::string RemoteDevice::boardPath() const {
    return adapterPath() + "/dev_" + withUnderscores(boardAddress());
}

std::unique_ptr<sdbus::IProxy> RemoteDevice::boardSeenByIt() const {
    return hwcommon::proxyFor(machine_.bus, bluez, boardPath());
}

bool RemoteDevice::knowsBoard(const char* property) const {
    try {
        return boardSeenByIt()->getProperty(property).onInterface(deviceInterface).get<bool>();
    } catch (const std::exception&) {
        return false;  // the device has not seen the board yet
    }
}

std::string RemoteDevice::pair() {
    if (knowsBoard("Paired")) throw std::runtime_error("it is paired already");
    const auto proxy = adapter();
    proxy->callMethod("StartDiscovery").onInterface(adapterInterface);
    const auto stop = [&proxy] {
        proxy->callMethod("StopDiscovery").onInterface(adapterInterface);
    };
    try {
        eventually([&] { boardSeenByIt()->getProperty("Address").onInterface(deviceInterface); });
    } catch (const std::exception&) {
        stop();
        throw std::runtime_error("the board was not found within a minute; is it discoverable?");
    }
    stop();
    boardSeenByIt()->callMethod("Pair").onInterface(deviceInterface).withTimeout(60s);
    return {};
}

std::string RemoteDevice::connect() {
    UniqueFd channel = l2capSocket(address_, 0);
    l2capConnect(channel.get(), boardAddress(), psmServiceDiscovery, 60000);
    channels_.push_back(std::move(channel));
    return {};
}

std::string RemoteDevice::disconnect() {
    channels_.clear();
    boardSeenByIt()->callMethod("Disconnect").onInterface(deviceInterface);
    return {};
}

std::string RemoteDevice::forget() {
    channels_.clear();
    if (knowsBoard("Paired")) {
        adapter()
            ->callMethod("RemoveDevice")
            .onInterface(adapterInterface)
            .withArguments(sdbus::ObjectPath(boardPath()));
        rememberEndpoints();
    }
    return {};
}

std::string RemoteDevice::comeBack() {
    machine_.bridge.comeBack(character_.key);
    Hci(hci_).restart(hci_);
    set("Discoverable", true);
    Hci(hci_).setClass(character_.deviceClass);
    return {};
}

std::string RemoteDevice::capture() {
    const std::string service = std::string("org.bluealsa.") + character_.key;
    const std::string path = "/org/bluealsa/hci" + std::to_string(hci_) + "/dev_" +
                             withUnderscores(boardAddress()) + "/a2dpsnk/source";
    constexpr const char* pcmInterface = "org.bluealsa.PCM1";
    const auto pcm = hwcommon::proxyFor(machine_.bus, service, path);
    sdbus::UnixFd sound, control;
    unsigned rate = 0, channels = 0;
    try {
        // The audio format is negotiated shortly after the connection.
        eventually([&] {
            rate = pcm->getProperty("Sampling").onInterface(pcmInterface).get<std::uint32_t>();
            channels = pcm->getProperty("Channels").onInterface(pcmInterface).get<std::uint8_t>();
        });
        pcm->callMethod("Open").onInterface(pcmInterface).storeResultsTo(sound, control);
    } catch (const sdbus::Error& error) {
        throw std::runtime_error("no music channel from the board: " + error.getMessage());
    }
    endCapture();
    tone_ = std::make_unique<Tone>(channels, rate);
    sound_ = UniqueFd(sound.release());
    soundControl_ = UniqueFd(control.release());
    machine_.poller.add(sound_.get(), [this](const std::uint8_t* data, std::size_t size) {
        tone_->feed(data, size);
    });
    return {};
}

void RemoteDevice::endCapture() {
    if (sound_) machine_.poller.remove(sound_.get());
    sound_.reset();
    soundControl_.reset();
}

std::string RemoteDevice::heard() {
    if (!tone_) throw std::runtime_error("it was not told to capture");
    endCapture();
    return tone_->report();
}

std::string RemoteDevice::show() {
    std::ostringstream out;
    char deviceClass[9];
    std::snprintf(deviceClass, sizeof deviceClass, "0x%06X", character_.deviceClass);
    out << character_.key << " address=" << address_ << " name=" << character_.name
        << " class=" << deviceClass << " paired=" << knowsBoard("Paired")
        << " connected=" << knowsBoard("Connected") << " channels=" << channels_.size();
    return out.str();
}

std::string RemoteDevice::vanish() {
    machine_.bridge.vanish(character_.key);
    return {};
}

std::string RemoteDevice::vanishWhenConnected() {
    machine_.bridge.vanishWhenConnected(character_.key);
    return {};
}

}  // namespace board
