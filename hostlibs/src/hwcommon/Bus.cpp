#include "Bus.h"

#include <climits>

#include <algorithm>
#include <array>
#include <utility>

#include <poll.h>

namespace hwcommon {

namespace {

constexpr char busService[] = "org.freedesktop.DBus";
constexpr char busPath[] = "/org/freedesktop/DBus";
constexpr char busInterface[] = "org.freedesktop.DBus";

/// Handles one message that has come. @return false when there was none
bool processOne(sdbus::IConnection& connection) {
#if CORVANE_SDBUS_MAJOR >= 2
    return connection.processPendingEvent();
#else
    return connection.processPendingRequest();
#endif
}

/// For poll(): rounded up, so that the deadline has passed when the time has.
int pollTime(NameWatch::Clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - NameWatch::Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

}  // namespace

NameWatch::NameWatch(std::string watchedName, std::function<void(bool)> changed)
    : name(std::move(watchedName)),
      connection(sdbus::createSystemBusConnection()),
      bus(proxyFor(*connection, busService, busPath)) {
    bus->uponSignal("NameOwnerChanged")
        .onInterface(busInterface)
        .call([this, changed = std::move(changed)](const std::string& changedName,
                                                   const std::string& /*oldOwner*/,
                                                   const std::string& newOwner) {
            if (changedName == name) changed(!newOwner.empty());
        });
#if CORVANE_SDBUS_MAJOR < 2
    bus->finishRegistration();
#endif
}

bool NameWatch::isOwned(std::chrono::milliseconds limit) {
    bool owned = false;
    bus->callMethod("NameHasOwner")
        .onInterface(busInterface)
        .withTimeout(limit)
        .withArguments(name)
        .storeResultsTo(owned);
    return owned;
}

void NameWatch::waitForMore(Clock::time_point deadline, int stop) {
    if (processOne(*connection)) return;
    const auto source = connection->getEventLoopPollData();
    std::array<pollfd, 2> descriptors{{{source.fd, source.events, 0}, {stop, POLLIN, 0}}};
    // An interrupted or failed poll is a short wait; a bus that is gone shows in processOne().
    poll(descriptors.data(), descriptors.size(), pollTime(deadline));
}

}  // namespace hwcommon
