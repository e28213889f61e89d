#pragma once

#include "Poller.h"
#include "RadioBridge.h"
#include "Tone.h"
#include "UniqueFd.h"
#include "hwcommon/Sdbus.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace board {

constexpr const char* bluez = "org.bluez";

enum Feature : unsigned {
    AUDIO_SINK = 1,  ///< takes music and can tell what it was played
    HID = 2,         ///< accepts HID channels
    REFUSES = 4,     ///< refuses every pairing
};

/// What a remote device is. The vendor is a Bluetooth SIG company identifier.
struct Character {
    const char* key;   ///< its name in commands
    const char* name;  ///< its Bluetooth name
    std::uint32_t deviceClass;
    std::uint16_t vendor, product, version;
    unsigned features;
};

/// Runs a program in the background; its output goes to a file in /run.
void start(const std::vector<std::string>& command);

/// Retries for a minute, then passes the last failure on.
template <class Work>
auto eventually(Work work) -> decltype(work()) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        try {
            return work();
        } catch (const std::exception&) {
            if (std::chrono::steady_clock::now() > deadline) throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

/// One remote device: an emulated controller that the machine's BlueZ serves. Its commands return
/// what the caller is told, and throw what went wrong.
class RemoteDevice {
public:
    /// What all devices share.
    struct Machine {
        RadioBridge& bridge;
        sdbus::IConnection& bus;
        Poller& poller;
        std::size_t devices;  ///< emulated controllers before the board's own
    };

    RemoteDevice(const Machine& machine, const Character& character);

    void setUp();
    /// Sets the class last, because the kernel writes its own class whenever a service registers.
    void finishSetUp();
    /// Comes after the agent, whose registration makes BlueZ set every adapter pairable.
    void setPairable();

    /// Accepts new HID channels, and closes a channel whose link has ended.
    void serveChannels();

    /// Searches for the board, as the device's user would, and pairs.
    std::string pair();
    /// Opens a channel to the board's service directory and keeps it open, as phones do.
    std::string connect();
    std::string disconnect();
    std::string forget();
    std::string vanish();
    std::string vanishWhenConnected();
    std::string comeBack();
    std::string capture();
    std::string heard();
    std::string show();

private:
    bool can(Feature feature) const { return (character_.features & feature) != 0; }
    std::string adapterPath() const { return "/org/bluez/hci" + std::to_string(hci_); }
    std::unique_ptr<sdbus::IProxy> adapter() const;
    template <class Value>
    void set(const char* property, Value value);
    /// Tells its BlueZ the board's music endpoints in advance. Otherwise it asks for them during
    /// the first configuration and answers that with the wrong label.
    void rememberEndpoints();
    void listen(std::uint16_t psm);
    std::string boardAddress() const;
    std::string boardPath() const;
    std::unique_ptr<sdbus::IProxy> boardSeenByIt() const;
    bool knowsBoard(const char* property) const;
    void endCapture();

    Machine machine_;
    const Character& character_;
    int hci_;
    std::string address_;
    std::vector<UniqueFd> listeners_;
    std::vector<UniqueFd> channels_;  ///< L2CAP channels that it opened or accepted
    std::unique_ptr<sdbus::IProxy> watcher_;
    UniqueFd sound_, soundControl_;
    std::unique_ptr<Tone> tone_;
};

}  // namespace board
