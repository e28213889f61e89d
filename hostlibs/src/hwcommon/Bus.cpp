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

}  // namespace

NoSignals::NoSignals() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_BLOCK, &all, &before);
}

NoSignals::~NoSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

NameWatch::NameWatch(std::string watchedName, std::function<void(const std::string&)> changed)
    : name(std::move(watchedName)),
      connection(sdbus::createSystemBusConnection()),
      bus(proxyFor(*connection, busService, busPath)) {
    bus->uponSignal("NameOwnerChanged")
        .onInterface(busInterface)
        .call([this, changed = std::move(changed)](const std::string& changedName,
                                                   const std::string& /*oldOwner*/,
                                                   const std::string& newOwner) {
            if (changedName == name) changed(newOwner);
        });
    subscribe(*bus);
}

std::string NameWatch::owner(std::chrono::milliseconds limit) {
    std::string connectionName;
    try {
        bus->callMethod("GetNameOwner")
            .onInterface(busInterface)
            .withTimeout(limit)
            .withArguments(name)
            .storeResultsTo(connectionName);
    } catch (const sdbus::Error& error) {
        if (error.getName() != "org.freedesktop.DBus.Error.NameHasNoOwner") throw;
    }
    return connectionName;
}

void NameWatch::waitForMore(Clock::time_point deadline, int stop) {
    if (processOne(*connection)) return;
    const auto source = connection->getEventLoopPollData();
    std::array<pollfd, 2> descriptors{{{source.fd, source.events, 0}, {stop, POLLIN, 0}}};
    // A failed poll just ends the wait; processOne() reports a bus that has gone.
    const auto limit = std::min(timeLeft(deadline), std::chrono::milliseconds(INT_MAX));
    poll(descriptors.data(), descriptors.size(), static_cast<int>(limit.count()));
}

}  // namespace hwcommon
