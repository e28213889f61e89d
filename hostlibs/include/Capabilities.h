#pragma once

/// The capabilities of the product that runs this host process.
///
/// libCorvane relies on this: any thread may call getInstance(), and the instance works during
/// static destruction (the manager's destructor uses it).
class Capabilities {
public:
    /// @return the process's only instance
    static const Capabilities& getInstance();

    /// Returns the product family. Boards of family 1 have a single Bluetooth enable line and no
    /// audio bridge. The reference reads the family from the board identity. Until the hardware
    /// service has answered, each call asks again; after a timeout (5 s) it does not ask for a
    /// minute.
    /// @return the family's number; 0 when unknown
    int getProductFamily() const;

private:
    constexpr Capabilities() = default;
};
