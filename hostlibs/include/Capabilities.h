#pragma once

/// What the product that this host process runs on can do.
///
/// What libCorvane relies on: getInstance() may be called from any thread, and the instance can
/// still be asked while static objects are destroyed (the manager's destructor does).
class Capabilities {
public:
    static const Capabilities& getInstance();

    /// The product family. Family 1 has a radio module with a single Bluetooth enable line and runs
    /// no audio bridge. The reference reads it once, at the first getInstance(), from the board
    /// identity.
    /// @return the family's number; 0 when not known
    int getProductFamily() const { return productFamily; }

private:
    explicit Capabilities(int family) : productFamily(family) {}

    int productFamily;
};
