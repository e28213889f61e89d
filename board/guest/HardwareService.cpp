// The board's hardware service: returns the content of the identity file on the system bus.

#include "hwcommon/Sdbus.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

constexpr const char* busName = "org.corvane.Hardware";
constexpr const char* objectPath = "/org/corvane/Hardware";
constexpr const char* interfaceName = "org.corvane.Hardware1";

std::string readIdentity(const std::string& path) {
    const std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw sdbus::Error(hwcommon::ErrorName(std::string(busName) + ".Error.Failed"),
                           "cannot read " + path);
    }
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: hardware-service IDENTITY_FILE\n");
        return 2;
    }
    const std::string path = argv[1];
    try {
        const auto connection = sdbus::createSystemBusConnection(hwcommon::ServiceName(busName));
        const auto object = sdbus::createObject(*connection, sdbus::ObjectPath(objectPath));
        // Read the file for each call, so that a changed one needs no restart.
        hwcommon::serve(*object, interfaceName,
                        hwcommon::Method{"GetHardwareInfo", [path] { return readIdentity(path); }});
        connection->enterEventLoop();
    } catch (const sdbus::Error& error) {
        std::fprintf(stderr, "hardware-service: %s\n", error.what());
        return 1;
    }
    return 0;
}
