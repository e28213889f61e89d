// Loaded before corvanectl (LD_PRELOAD), together with the interposed functions of tests/support:
// sets up their machine. No command runs, no radio is touched.
//
// CORVANE_TEST_ROOT    folder: "setting" is the content of the flag file, "hci0" exists if the
//                      adapter does, "commands" collects the shell commands (each prints a line on
//                      its standard output), "log-answer" is what a command whose output is read
//                      prints
// CORVANE_TEST_HURRY   set: waits are over at once, and each look at the clock takes a second
// CORVANE_TEST_DAEMON  set: starting the HID daemon leaves a process behind, its number in "daemon"
//
// Starting and stopping bluetoothd makes the fake BlueZ own and release its bus name.

#include "Edges.h"
#include "RadioWirings.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <unistd.h>

namespace corvane::test {
namespace {

const std::filesystem::path& root() {
    static const std::filesystem::path folder = std::getenv("CORVANE_TEST_ROOT");
    return folder;
}

void record(std::string_view command) {
    std::ofstream(root() / "commands", std::ios_base::app) << command << '\n';
}

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void tellFake(const std::string& method) {
    const std::string call = "gdbus call --system -d org.corvane.FakeBluez -o / -m ";
    const std::string wanted = "org.corvane.FakeBluez1." + method + " org.bluez > /dev/null";
    [[maybe_unused]] const int status = next<decltype(system)>("system")((call + wanted).c_str());
}

void run(std::string_view command) {
    const auto holds = [&](std::string_view part) { return command.find(part) != command.npos; };
    record(command);
    // As the real ones do.
    dprintf(STDOUT_FILENO, "Device setup complete\n");
    if (holds("-x /usr/libexec/bluetooth/bluetoothd")) tellFake("Own");
    if (command == "/sbin/kill_and_wait.sh bluetoothd") tellFake("Release");
    if (holds("/sbin/kill_and_wait.sh rtk_hciattach")) edges().paths.erase(hciDevice);
    if (holds("--exec /bin/rtk_hciattach")) edges().paths.insert(hciDevice);
    if (holds("-x /bin/hw_bluez_hid") && std::getenv("CORVANE_TEST_DAEMON") != nullptr) {
        const pid_t daemon = fork();
        if (daemon == 0) execl("/bin/sleep", "sleep", "600", nullptr);
        std::ofstream(root() / "daemon") << daemon;
    }
}

FILE* read(const char* command) {
    record(command);
    // Of corvanectl's own only the archiver and the calls on the bus really run.
    if (std::string_view(command).rfind("{ tar ", 0) == 0 ||
        std::string_view(command).rfind("{ dbus-send ", 0) == 0) {
        return next<decltype(popen)>("popen")(command, "r");
    }
    FILE* const answer = std::fopen((root() / "log-answer").c_str(), "r");
    return answer != nullptr ? answer : std::tmpfile();
}

[[gnu::constructor]] void setUp() {
    unsetenv("LD_PRELOAD");  // what really runs does so on this machine
    Edges& machine = edges();
    machine.modelName = "Corvane C100";
    machine.onShell = run;
    machine.onPipe = read;
    machine.asksTheBus = true;
    machine.sleeps = std::getenv("CORVANE_TEST_HURRY") == nullptr;
    if (!machine.sleeps) Clock::hurry(std::chrono::seconds(1));
    if (std::filesystem::exists(root() / "hci0")) machine.paths.insert(hciDevice);
    if (std::ifstream setting(root() / "setting"); setting) {
        machine.flagFile.emplace(std::istreambuf_iterator<char>(setting),
                                 std::istreambuf_iterator<char>());
    }
}

}  // namespace
}  // namespace corvane::test
