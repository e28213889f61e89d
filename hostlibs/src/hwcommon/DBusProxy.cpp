#include "hwcommon/DBusProxy.h"

#include "Bus.h"
#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

#include <algorithm>

namespace hwcommon {

namespace {

// A bus that runs answers within milliseconds; a look must have some time all the same.
constexpr std::chrono::milliseconds shortestAnswer{1000};

}  // namespace

DBusProxy::DBusProxy(sdbus::IConnection& /*connection*/) {}

bool DBusProxy::waitUntilDBusNameExist(const std::string& name, unsigned timeout) {
    const std::chrono::milliseconds limit(timeout);
    const auto deadline = NameWatch::Clock::now() + limit;
    try {
        bool owned = false;
        NameWatch watch(name, [&owned](bool nowOwned) { owned = nowOwned; });
        owned = watch.isOwned(std::max(limit, shortestAnswer));
        while (!owned && NameWatch::Clock::now() < deadline) watch.waitForMore(deadline);
        return owned;
    } catch (const std::exception& error) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "Cannot wait for the bus name " << name << ": " << error.what());
        return false;
    }
}

}  // namespace hwcommon
