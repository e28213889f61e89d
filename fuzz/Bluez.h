#pragma once

#include <gio/gio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace corvane::fuzz {

using Message = std::shared_ptr<GDBusMessage>;
using Value = std::shared_ptr<GVariant>;

/// Takes the reference over; a floating one is sunk.
Value own(GVariant* value);

/// The reply to GetManagedObjects, taken apart.
struct Property {
    std::string name;
    Value value;
};
struct Interface {
    std::string name;
    std::vector<Property> properties;
};
struct Object {
    std::string path;
    std::vector<Interface> interfaces;
};
using Reply = std::vector<Object>;

/// The first message of the bytes, as GDBus reads it off the wire; null where it would drop the
/// connection.
Message messageOf(const std::uint8_t* data, std::size_t size);

/// The objects of a reply; nothing when the message is no reply of that type.
bool readReply(const Message& message, Reply& reply);

/// A reply as on the wire.
std::vector<std::uint8_t> wireOf(const Value& body, GDBusMessageByteOrder order);
std::vector<std::uint8_t> wireOf(const Reply& reply, GDBusMessageByteOrder order);

/// What BlueZ answers to GetManagedObjects from now on. It agrees to every other call. Nothing goes
/// over the bus: GDBus's calls end here, and GDBus's rules for replies are kept.
void bluezAnswers(const Message& message);

}  // namespace corvane::fuzz
