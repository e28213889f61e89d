#pragma once

/// What the product that this host process runs on can do.
///
/// What libCorvane relies on: getInstance() may be called from any thread, and the instance can
/// still be asked while static objects are destroyed (the manager's destructor does).
class Capabilities {
public:
    static const Capabilities& getInstance();

    /// The product family. Family 1 has a radio module with a single Bluetooth enable line and runs
    /// no audio bridge. The reference takes it from the board identity. Until the hardware service
    /// has given one, each call asks again, but a service that was asked in vain for 5 s is left
    /// alone for a minute.
    /// @return the family's number; 0 when not known
    int getProductFamily() const;

private:
    constexpr Capabilities() = default;
};
