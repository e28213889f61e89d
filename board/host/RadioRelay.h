#pragma once

#include "H4Stream.h"
#include "Poller.h"

#include <string>
#include <vector>

namespace board {

/// The radio module outside the board: joins the board's UART with the emulated controller on the
/// other machine, while the enable lines that the module is wired to are high. The levels are read
/// from the emulated GPIO controller itself, from outside.
///
/// Without power nothing passes in either direction, and the controller forgets everything: with
/// power back, the board finds a fresh one.
class RadioRelay {
public:
    /// @param board, remote  the two UARTs
    /// @param monitor        the board's QMP socket
    /// @param wiring         0, 1 or 2, which decides the enable lines
    RadioRelay(Poller& poller, int board, int remote, int monitor, int wiring);

    /// Reads the lines; to be called some tens of times a second.
    void poll();

    /// The other machine is up: the controller can be powered.
    void remoteIsReady();

    /// Lets the radio misbehave, or work again.
    /// @param fault  "silent": it answers nothing; "refuse": it refuses every command; "vanish": it
    ///               has no power whatever the lines say; "reset": it loses its state once and says
    ///               so; "normal"
    /// @return whether there is such a fault
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
    bool powered_ = false;     ///< the lines say so
    bool controller_ = false;  ///< and the other machine has put a controller on the line
    bool resets_ = false;      ///< a fresh controller is under way that must announce itself
    Fault fault_ = Fault::None;
};

}  // namespace board
