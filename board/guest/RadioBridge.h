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

/// Joins serial lines with controllers of the emulator, whole H4 packets in both directions, on a
/// thread of its own: the kernel's side of a line must be served while other threads wait for
/// BlueZ. One line is the board's radio, which its relay powers; the others are the remote
/// devices'.
///
/// Data of a link goes from line to line without the emulator, which delivers it under the sender's
/// handle: as soon as a controller has two links, those of the two sides differ.
class RadioBridge {
public:
    /// @param emulator   path of the emulator's socket; each connection is a new controller
    /// @param radioLine  serial line to the board's relay
    RadioBridge(std::string emulator, const std::string& radioLine);
    ~RadioBridge();

    /// Adds a pseudo terminal with a controller behind it and attaches it to this kernel.
    /// @return the number of the hci device
    int addDevice(const std::string& name);

    /// The device is out of reach from now on: its links end as after a supervision time-out.
    void vanish(const std::string& name) {
        post([this, name] { unplug(ports_.at(name)); });
    }
    /// The same as soon as another controller has connected to it.
    void vanishWhenConnected(const std::string& name) {
        post([this, name] { ports_.at(name).vanishes = true; });
    }
    /// A fresh controller for the device, with the same address.
    void comeBack(const std::string& name) {
        post([this, name] { plug(ports_.at(name)); });
    }
    /// A fresh controller for the board, as after a loss of power.
    void refreshRadio() {
        post([this] {
            unplug(radio_);
            plug(radio_);
        });
    }

    /// The address of the board's controller, "00:AA:01:08:00:42" for instance; empty before the
    /// board has asked for it.
    std::string radioAddress() const;

private:
    struct Port {
        UniqueFd line, lineEnd, controller;
        H4Stream fromLine, fromController;
        std::string address;                         ///< empty until the kernel has asked for it
        std::map<std::uint16_t, std::string> links;  ///< handle and the other side's address
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
