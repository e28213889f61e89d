#include "Machine.h"

#include "Edges.h"
#include "TestBus.h"
#include "hwcommon/DBusHardwareProxy.h"

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>
#include <unistd.h>

namespace corvane::fuzz {

namespace {

/// The library calls whatever the dynamic linker finds first.
template <class Function>
void requireOurs(const char* name, Function* ours) {
    require(dlsym(RTLD_DEFAULT, name) == reinterpret_cast<void*>(ours), name);
}

BluetoothManager& make() {
    requireOurs("system", &::system);
    requireOurs("popen", &::popen);
    static const test::PrivateBus bus;
    test::captureLog();
    // Otherwise each switching on leaves three sockets open.
    test::edges().failingHci = {"hci_open_dev", "socket"};
    BluetoothManager& made = BluetoothManager::getInstance();
    test::edges().forget();
    return made;
}

}  // namespace

void require(bool holds, const char* what) {
    if (holds) return;
    dprintf(STDERR_FILENO, "does not hold: %s\n", what);
    std::abort();
}

BluetoothManager& manager() {
    static BluetoothManager& instance = make();
    return instance;
}

}  // namespace corvane::fuzz

std::string hwcommon::DBusHardwareProxy::getHardwareInfo() {
    return "<identity><model>1</model><family>3</family><revision>7</revision>"
           "<serial>SN12345678</serial></identity>";
}
