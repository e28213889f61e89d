#include "Machine.h"

#include "Edges.h"
#include "TestBus.h"
#include "hwcommon/DBusHardwareProxy.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>
#include <unistd.h>

using corvane::test::edges;
using corvane::test::Kind;

namespace corvane::fuzz {

namespace {

/// The library calls what the dynamic linker finds first.
template <class Function>
void requireOurs(const char* name, Function* ours) {
    require(dlsym(RTLD_DEFAULT, name) == reinterpret_cast<void*>(ours), name);
}

BluetoothManager& make() {
    requireOurs("system", &::system);
    requireOurs("popen", &::popen);
    require(edges().folder.empty(), "the system log is not really looked at");
    static const test::PrivateBus bus;
    test::captureLog();
    // Else three of them would stay open for each switching on.
    edges().failingHci = {"hci_open_dev", "socket"};
    BluetoothManager& made = BluetoothManager::getInstance();
    edges().forget();
    made.setAirplaneMode(true);
    const auto events = edges().events();
    require(std::any_of(events.begin(), events.end(),
                        [](const test::Event& event) {
                            return event.kind == Kind::SHELL &&
                                   event.text.rfind("modprobe -r ", 0) == 0;
                        }),
            "the library's commands end in this process");
    edges().forget();
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
