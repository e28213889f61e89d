#pragma once

#include "H4Stream.h"
#include "Poller.h"
#include "UniqueFd.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace board {

/// Connects serial lines to the emulator's controllers, with whole H4 packets in both directions.
/// It runs on its own thread, because the kernel's side of a line must be served while other
/// threads wait for BlueZ. One line is the board's radio, powered by its relay; the others belong
/// to the remote devices.
///
/// Link data goes directly from line to line. The emulator would deliver it under the sender's
/// handle, which differs from the receiver's once a controller has two links.
class RadioBridge {
public:
    /// @param emulator   path of the emulator's socket; each connection is a new controller
    /// @param radioLine  serial line to the board's relay
    RadioBridge(std::string emulator, const std::string& radioLine);
    ~RadioBridge();

    /// Adds a pseudo terminal with a controller behind it and attaches it to this kernel.
    /// @return the number of the hci device
    int addDevice(const std::string& name);

    /// Puts the device out of reach: its links end as after a supervision timeout.
    void vanish(const std::string& name) {
        post([this, name] { unplug(ports_.at(name)); });
    }
    /// Puts the device out of reach as soon as another controller connects to it.
    void vanishWhenConnected(const std::string& name) {
        post([this, name] { ports_.at(name).vanishes = true; });
    }
    /// Gives the device a new controller with the same address.
    void comeBack(const std::string& name) {
        post([this, name] { plug(ports_.at(name)); });
    }
    /// Gives the board a new controller, as after a loss of power.
    void refreshRadio() {
        post([this] {
            unplug(radio_);
            plug(radio_);
        });
    }

    /// Returns the address of the board's controller, for example "00:AA:01:08:00:42"; empty until
    /// the board has asked for it.
    std::string radioAddress() const;

private:
    struct Port {
        UniqueFd line, lineEnd, controller;
        H4Stream fromLine, fromController;
        std::string address;                         ///< empty until the kernel has asked for it
        std::map<std::uint16_t, std::string> links;  ///< handle, the other side's address
        bool vanishes = false;
    };

    void post(std::function<void()> work);
    void serve(Port& port);
    void plug(Port& port);
    void unplug(Port& port);
    void endLinks(Port& port);
    void fromLine(Port& port, const std::uint8_t* data, std::size_t size);
    void fromController(Port& port, const std::uint8_t* data, std::size_t size);
    void watchEvents(Port& port, const Bytes& event);
    void carryData(Port& from, Bytes& packet);

    std::string emulator_;
    Poller poller_;
    Port radio_;
    std::map<std::string, Port> ports_;
    UniqueFd wakeRead_, wakeWrite_;
    mutable std::mutex mutex_;
    std::vector<std::function<void()>> work_;
    std::thread thread_;
};

}  // namespace board
