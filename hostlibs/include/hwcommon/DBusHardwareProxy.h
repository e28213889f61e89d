#pragma once

#include <string>

namespace hwcommon {

/// Observes the hardware service through a DBusHardwareProxy. libCorvane does not use it.
class DBusHardwareObserver {
public:
    virtual ~DBusHardwareObserver() = default;

    /// Called on the proxy's own thread when the hardware service appears or disappears. If the bus
    /// itself goes away, the last call says false.
    /// @param available  whether the service is there
    virtual void hardwareServiceAvailable(bool available) = 0;
};

/// The board's hardware service on the system bus: name org.corvane.Hardware, object
/// /org/corvane/Hardware, interface org.corvane.Hardware1.
///
/// libCorvane relies on this: getHardwareInfo() returns within the bus timeout and never throws.
class DBusHardwareProxy {
public:
    /// Builds a proxy.
    /// @param observer  told when the service appears or disappears; may be null; must outlive this
    /// object
    explicit DBusHardwareProxy(DBusHardwareObserver* observer);
    ~DBusHardwareProxy();
    DBusHardwareProxy(const DBusHardwareProxy&) = delete;
    DBusHardwareProxy& operator=(const DBusHardwareProxy&) = delete;

    /// Asks for the board identity. Blocks until the service answers, in the reference for at most
    /// 5 s.
    /// @return the XML text (docs/identity.md); empty without a bus, a service or an answer, with
    /// the reason in the log
    std::string getHardwareInfo();

private:
    struct Private;
    Private* const d;
};

}  // namespace hwcommon
