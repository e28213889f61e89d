#pragma once

// What differs between sdbus-c++ 1 and 2. Version 2 gives names types of their own and registers
// signal handlers at once, and an object's methods together.

#include <sdbus-c++/sdbus-c++.h>

#include <memory>
#include <string>
#include <utility>

#if __has_include(<sdbus-c++/VTableItems.h>)
#define CORVANE_SDBUS_2
#endif

namespace hwcommon {

#ifdef CORVANE_SDBUS_2
using ServiceName = sdbus::ServiceName;
using ErrorName = sdbus::Error::Name;
#else
using ServiceName = std::string;
using ErrorName = std::string;
#endif

/// Makes a proxy for a remote object.
inline std::unique_ptr<sdbus::IProxy> proxyFor(sdbus::IConnection& connection,
                                               const std::string& service,
                                               const std::string& path) {
    return sdbus::createProxy(connection, ServiceName(service), sdbus::ObjectPath(path));
}

/// Registers a proxy's signal handlers with the bus, before any later call.
inline void subscribe([[maybe_unused]] sdbus::IProxy& proxy) {
#ifndef CORVANE_SDBUS_2
    proxy.finishRegistration();
#endif
}

/// Handles one received message.
/// @return false if there was none
inline bool processOne(sdbus::IConnection& connection) {
#ifdef CORVANE_SDBUS_2
    return connection.processPendingEvent();
#else
    return connection.processPendingRequest();
#endif
}

/// A method that an object serves.
template <class Function>
struct Method {
    const char* name;
    Function function;
};
template <class Function>
Method(const char*, Function) -> Method<Function>;

/// Serves all methods of one interface of an object.
template <class... Functions>
void serve(sdbus::IObject& object, const char* interface, Method<Functions>... methods) {
#ifdef CORVANE_SDBUS_2
    object
        .addVTable(
            sdbus::registerMethod(methods.name).implementedAs(std::move(methods.function))...)
        .forInterface(interface);
#else
    (object.registerMethod(methods.name)
         .onInterface(interface)
         .implementedAs(std::move(methods.function)),
     ...);
    object.finishRegistration();
#endif
}

}  // namespace hwcommon
