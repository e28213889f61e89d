#pragma once

#include <string>

namespace hwcommon {

/// Told of changes by a DBusHardwareProxy. libCorvane passes none.
class DBusHardwareObserver {
public:
    virtual ~DBusHardwareObserver() = default;

    /// The hardware service came (true) or went (false). Called on the proxy's own thread. When the
    /// bus itself goes, false is the last word.
    virtual void hardwareServiceAvailable(bool available) = 0;
};

/// The board's hardware service on the system bus: name org.corvane.Hardware, object
/// /org/corvane/Hardware, interface org.corvane.Hardware1.
///
/// What libCorvane relies on: getHardwareInfo() returns within the bus's time limit and never
/// throws.
class DBusHardwareProxy {
public:
    /// @param observer  told of the service's coming and going; may be null; borrowed
    explicit DBusHardwareProxy(DBusHardwareObserver* observer);
    ~DBusHardwareProxy();
    DBusHardwareProxy(const DBusHardwareProxy&) = delete;
    DBusHardwareProxy& operator=(const DBusHardwareProxy&) = delete;

    /// The board identity as XML text (docs/identity.md). Blocks until the service has answered, in
    /// the reference 5 s at most.
    /// @return the text; empty when there is no bus, no service or no answer (the reason is logged)
    std::string getHardwareInfo();

private:
    struct Private;
    Private* const d;
};

}  // namespace hwcommon
