// Changes a reply in its parts, so that most of what comes out is one that GDBus passes on; every
// third time the bytes are changed as they stand.

#include "Bluez.h"
#include "HostileTexts.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

using namespace corvane::fuzz;

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using Random = std::minstd_rand;

std::size_t below(Random& random, std::size_t limit) { return random() / 7 % limit; }

template <class Container>
auto& anyOf(Random& random, Container& container) {
    return container[below(random, container.size())];
}

constexpr std::array<const char*, 8> propertyNames{
    {"Address", "Name", "Alias", "Class", "Paired", "Connected", "Modalias", "address"}};
constexpr std::array<const char*, 6> interfaceNames{{"org.bluez.Device1", "org.bluez.DEVICESet1",
                                                     "com.example.mydevices", "org.bluez.Adapter1",
                                                     "org.bluez.Devic", ""}};
constexpr std::array<const char*, 8> otherValues{{"objectpath '/a'", "b'bytes'", "int32 5898764",
                                                  "byte 1", "<<'deeper'>>", "['a', 'b']",
                                                  "@a{sv} {}", "signature 's'"}};

/// A text as D-Bus allows it: UTF-8 without a zero byte.
std::string text(Random& random, const std::string& former) {
    static const auto hostile = [] {
        std::vector<std::string> all;
        for (const char* folder : {"names", "modalias"}) {
            for (auto& row : corvane::test::hostileTexts(folder)) all.push_back(row.second);
        }
        return all;
    }();
    std::string result = below(random, 2) == 0 ? anyOf(random, hostile) : former;
    if (below(random, 2) == 0) {
        const std::size_t size = result.size();
        result.resize(size + 32);
        result.resize(
            LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(result.data()), size, result.size()));
    }
    gchar* const valid = g_utf8_make_valid(result.c_str(), -1);
    result = valid;
    g_free(valid);
    return result;
}

Value value(Random& random, const Value& former) {
    switch (below(random, 5)) {
        case 0:
            return own(g_variant_new_boolean(static_cast<gboolean>(below(random, 2))));
        case 1:
            return own(g_variant_new_uint32(static_cast<guint32>(random())));
        case 2:
            return own(
                g_variant_parse(nullptr, anyOf(random, otherValues), nullptr, nullptr, nullptr));
        default: {
            const bool wasText =
                former && g_variant_is_of_type(former.get(), G_VARIANT_TYPE_STRING);
            const std::string old = wasText ? g_variant_get_string(former.get(), nullptr) : "";
            return own(g_variant_new_string(text(random, old).c_str()));
        }
    }
}

/// Adds, doubles, removes or exchanges elements. @return one to change; null: leave them alone
template <class Element>
Element* edit(Random& random, std::vector<Element>& elements) {
    constexpr std::size_t limit = 200;
    if (elements.empty()) return &elements.emplace_back();
    switch (below(random, 6)) {
        case 0:
            if (elements.size() < limit) elements.push_back(anyOf(random, elements));
            return nullptr;
        case 1:
            elements.erase(elements.begin() +
                           static_cast<std::ptrdiff_t>(below(random, elements.size())));
            return nullptr;
        case 2:
            std::swap(anyOf(random, elements), anyOf(random, elements));
            return nullptr;
        case 3:
            return elements.size() < limit ? &elements.emplace_back() : nullptr;
        default:
            return &anyOf(random, elements);
    }
}

void change(Random& random, Reply& reply) {
    Object* const object = edit(random, reply);
    if (object == nullptr) return;
    if (object->path.empty()) object->path = "/org/bluez/hci0/dev_" + std::to_string(random());
    Interface* const interface = edit(random, object->interfaces);
    if (interface == nullptr) return;
    if (interface->name.empty() || below(random, 8) == 0) {
        interface->name = anyOf(random, interfaceNames);
    }
    Property* const property = edit(random, interface->properties);
    if (property == nullptr) return;
    if (property->name.empty() || below(random, 4) == 0) {
        property->name =
            below(random, 8) == 0 ? text(random, property->name) : anyOf(random, propertyNames);
    }
    property->value = value(random, property->value);
}

/// An element that was added and not filled stays out.
void complete(Reply& reply) {
    for (Object& object : reply) {
        if (object.path.empty()) object.path = "/";
        for (Interface& interface : object.interfaces) {
            for (Property& property : interface.properties) {
                if (!property.value) property.value = own(g_variant_new_boolean(TRUE));
            }
        }
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
    Random random(seed);
    const Message message = messageOf(data, size);
    Reply reply;
    if (below(random, 3) == 0 || !message || !readReply(message, reply)) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    const std::size_t changes = 1 + below(random, 4);
    for (std::size_t i = 0; i < changes; ++i) change(random, reply);
    complete(reply);
    const auto bytes =
        wireOf(reply, below(random, 2) == 0 ? G_DBUS_MESSAGE_BYTE_ORDER_BIG_ENDIAN
                                            : G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN);
    if (bytes.empty() || bytes.size() > maxSize) return LLVMFuzzerMutate(data, size, maxSize);
    std::memcpy(data, bytes.data(), bytes.size());
    return bytes.size();
}
