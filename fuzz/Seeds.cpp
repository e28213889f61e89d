// Writes the first inputs of managed-objects: replies as BlueZ would send them, and as it would
// not.
//
// Usage: corvane-fuzz-seeds FOLDER

#include "Bluez.h"
#include "HostileTexts.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

using namespace corvane::fuzz;

namespace {

struct Seed {
    const char* name;
    const char* body;  // in GVariant text form
};

constexpr char phone[] =
    "'Address': <'00:00:00:00:00:03'>, 'Name': <'Phone'>, 'Alias': <'an alias'>, "
    "'Class': <uint32 5898764>, 'Paired': <true>, 'Connected': <true>, 'RSSI': <int16 -40>, "
    "'UUIDs': <['0000110b-0000-1000-8000-00805f9b34fb']>, "
    "'ManufacturerData': <{uint16 76: <b'\\x10\\x05'>}>, "
    "'Modalias': <'bluetooth:v004Cp0269d0001'>";

std::string object(const std::string& interfaces) {
    return "(@a{oa{sa{sv}}} {'/org/bluez/hci0/dev_1': " + interfaces + "},)";
}

std::string device(const std::string& properties) {
    return object("{'org.bluez.Device1': {" + properties + "}}");
}

std::string folder;

void write(const std::string& name, const std::vector<std::uint8_t>& bytes) {
    std::ofstream file(folder + '/' + name, std::ios_base::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

void write(const std::string& name, const std::string& body,
           GDBusMessageByteOrder order = G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN) {
    GError* error = nullptr;
    GVariant* const value = g_variant_parse(nullptr, body.c_str(), nullptr, nullptr, &error);
    if (value == nullptr) {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), error->message);
        std::exit(1);
    }
    write(name, wireOf(own(value), order));
}

/// The text in the place of one of the same length, whether the bus likes it or not.
void writeNamed(const std::string& name, const char* property, const std::string& text) {
    const std::string placeholder(text.size(), '~');
    Reply reply{{"/org/bluez/hci0/dev_1",
                 {{"org.bluez.Device1",
                   {{"Address", own(g_variant_new_string("00:00:00:00:00:01"))},
                    {property, own(g_variant_new_string(placeholder.c_str()))}}}}}};
    auto bytes = wireOf(reply, G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN);
    const auto at = std::search(bytes.begin(), bytes.end(), placeholder.begin(), placeholder.end());
    std::copy(text.begin(), text.end(), at);
    write(name, bytes);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    folder = argv[1];
    write("phone", device(phone));
    write("phone-big-endian", device(phone), G_DBUS_MESSAGE_BYTE_ORDER_BIG_ENDIAN);
    write("no-objects", "(@a{oa{sa{sv}}} {},)");
    write("no-interfaces", object("@a{sa{sv}} {}"));
    write("no-properties", object("{'org.bluez.Device1': @a{sv} {}}"));
    write("empty-name", device("'Name': <''>, 'Address': <'A'>"));
    write("other-types",
          device("'Address': <objectpath '/a'>, 'Name': <b'bytes'>, 'Class': <int32 5898764>, "
                 "'Paired': <'true'>, 'Connected': <byte 1>, 'Modalias': <['usb:v1p2d3']>, "
                 "'address': <'lower case'>"));
    write("deeper-variants", device("'Name': <<<'inside'>>>, 'Paired': <<true>>"));
    write(
        "loose-interfaces",
        object("{'org.bluez.Device1': {'Name': <'one'>, 'Paired': <true>}, 'org.bluez.DEVICESet1': "
               "@a{sv} {}, 'com.example.mydevices': {'Name': <'three'>}, 'org.bluez.Devic': "
               "{'Name': <'none'>}}"));
    write("another-type", "('no objects',)");
    write("nearly-the-type", "(@a{oa{sas}} {},)");
    write("no-body", "()");

    Reply doubled{{"/a",
                   {{"org.bluez.Device1",
                     {{"Name", own(g_variant_new_string("first"))},
                      {"Paired", own(g_variant_new_boolean(TRUE))},
                      {"Name", own(g_variant_new_string("second"))},
                      {"Paired", own(g_variant_new_boolean(FALSE))}}}}}};
    doubled.push_back(doubled.front());
    write("doubled", wireOf(doubled, G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN));

    for (const auto& [name, text] : corvane::test::hostileTexts("names")) {
        writeNamed("name-" + name, "Name", text);
    }
    for (const auto& [name, text] : corvane::test::hostileTexts("modalias")) {
        writeNamed("modalias-" + name, "Modalias", text);
    }
    writeNamed("address-no-path", "Address", "00:11:22;id:'44");
    auto bytes = wireOf(Reply{}, G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN);
    bytes.resize(bytes.size() - 1);
    write("cut-short", bytes);
    return 0;
}
