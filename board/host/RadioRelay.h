#pragma once

#include "H4Stream.h"
#include "Poller.h"

#include <string>
#include <vector>

namespace board {

/// The radio module outside the board. It connects the board's UART to the emulated controller on
/// the other machine while the enable lines of the wiring are high, and reads their levels from the
/// emulated GPIO controller.
///
/// Without power nothing passes in either direction and the controller forgets everything:
/// afterwards the board finds a new one.
class RadioRelay {
public:
    /// @param board, remote  the two UARTs
    /// @param monitor        the board's QMP socket
    /// @param wiring         0, 1 or 2, which decides the enable lines
    RadioRelay(Poller& poller, int board, int remote, int monitor, int wiring);

    /// Reads the lines. Call it some tens of times per second.
    void poll();

    /// Reports that the other machine is up, so the controller can be powered.
    void remoteIsReady();

    /// Makes the radio misbehave, or work again.
    /// @param fault  "silent": answers nothing; "refuse": refuses every command; "vanish": has no
    /// power, whatever the lines say; "reset": loses its state once and reports it; "normal": works
    /// @return whether the fault exists
    bool misbehave(const std::string& fault);

private:
    enum class Fault { None, Silent, Refuse, Vanish };

    void fromBoard(const std::uint8_t* data, std::size_t size);
    void fromRemote(const std::uint8_t* data, std::size_t size);
    void fromMonitor(const std::uint8_t* data, std::size_t size);
    void answer(const std::string& line);
    void askForLine();
    void update();
    void switchController(bool on);
    void refuse(const Bytes& command);

    struct EnableLine {
        unsigned number;             ///< as sysfs counts
        unsigned long dataRegister;  ///< physical address; the direction register follows it
        unsigned bit;
        bool high = false;
    };

    Poller& poller_;
    int board_, remote_, monitor_;
    std::vector<EnableLine> lines_;
    H4Stream boardStream_, remoteStream_;
    std::string monitorText_;
    bool monitorReady_ = false;
    bool asking_ = false;
    std::size_t asked_ = 0;
    bool remoteReady_ = false;
    bool powered_ = false;     ///< according to the lines
    bool controller_ = false;  ///< the other machine has attached a controller
    bool resets_ = false;      ///< a new controller must report the reset
    Fault fault_ = Fault::None;
};

}  // namespace board
