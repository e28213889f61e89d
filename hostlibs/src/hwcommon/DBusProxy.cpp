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

// A bus that runs answers within milliseconds; a look must have some time all the same.
constexpr std::chrono::milliseconds shortestAnswer{1000};

/// A service that owns its name before it can serve: it can once it shows an object with this
/// interface.
struct LateService {
    std::string_view name;
    const char* interface;
};
constexpr std::array<LateService, 1> lateServices{{{"org.bluez", "org.bluez.Adapter1"}}};

constexpr char objectManager[] = "org.freedesktop.DBus.ObjectManager";

/// Waits until `owner`, the present owner of the watched name, shows an object with the interface.
/// One that answers the question with an error counts as having it.
/// @return false when the deadline passed or the name changed hands
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
        // Also what the bus answers for an owner that has gone.
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
