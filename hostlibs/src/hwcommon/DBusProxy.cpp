#include "hwcommon/DBusProxy.h"

#include "Bus.h"
#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <array>
#include <map>
#include <string_view>

namespace hwcommon {

namespace {

using Clock = NameWatch::Clock;
using Interfaces = std::map<std::string, std::map<std::string, sdbus::Variant>>;

// A bus answers within milliseconds, but even a mere check must give it some time.
constexpr std::chrono::milliseconds shortestAnswer{1000};

/// A service that owns its name before it is ready. It is ready once it has an object with this
/// interface.
struct LateService {
    std::string_view name;
    const char* interface;
};
constexpr std::array<LateService, 1> lateServices{{{"org.bluez", "org.bluez.Adapter1"}}};

constexpr char objectManager[] = "org.freedesktop.DBus.ObjectManager";

/// Waits until the name's owner has an object with the interface. An owner that answers with an
/// error counts as ready.
/// @return false if the deadline passed or the name has another owner
bool waitForObject(NameWatch& watch, std::string& owner, const char* interface,
                   Clock::time_point deadline) {
    const std::string asked = owner;
    bool found = false;
    const auto objects = watch.object(asked, "/");
    objects->uponSignal("InterfacesAdded")
        .onInterface(objectManager)
        .call([&found, interface](const sdbus::ObjectPath& /*path*/, const Interfaces& added) {
            if (added.count(interface) != 0) found = true;
        });
    subscribe(*objects);
    try {
        std::map<sdbus::ObjectPath, Interfaces> present;
        objects->callMethod("GetManagedObjects")
            .onInterface(objectManager)
            .withTimeout(timeLeft(deadline))
            .storeResultsTo(present);
        found = std::any_of(present.begin(), present.end(), [interface](const auto& object) {
            return object.second.count(interface) != 0;
        });
    } catch (const sdbus::Error&) {
        // The bus also answers with an error if the owner has gone.
        owner = watch.owner(shortestAnswer);
        return owner == asked;
    }
    while (!found && owner == asked && Clock::now() < deadline) watch.waitForMore(deadline);
    return found;
}

}  // namespace

DBusProxy::DBusProxy(sdbus::IConnection& /*connection*/) {}

bool DBusProxy::waitUntilDBusNameExist(const std::string& name, unsigned timeout) {
    const NoSignals undisturbed;
    const std::chrono::milliseconds limit(timeout);
    const auto deadline = Clock::now() + limit;
    const auto late = std::find_if(lateServices.begin(), lateServices.end(),
                                   [&name](const auto& service) { return service.name == name; });
    try {
        std::string owner;
        NameWatch watch(name, [&owner](const std::string& newOwner) { owner = newOwner; });
        owner = watch.owner(std::max(limit, shortestAnswer));
        bool ready = false;
        while (!ready && Clock::now() < deadline) {
            if (owner.empty()) {
                watch.waitForMore(deadline);
            } else {
                ready = late == lateServices.end() ||
                        waitForObject(watch, owner, late->interface, deadline);
            }
        }
        return !owner.empty();
    } catch (const std::exception& error) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "Cannot wait for the bus name " << name << ": " << error.what());
        return false;
    }
}

}  // namespace hwcommon
