// Stands between corvanectl and its machine: loaded before it (LD_PRELOAD), takes the calls by
// which the library reaches shell, radio, lines and files. No command runs, no radio is touched.
//
// CORVANE_TEST_ROOT    folder: files of the machine are looked up below it, "commands" collects the
//                      shell commands (each prints a line on its standard output), "log-answer" is
//                      what a command whose output is read prints
// CORVANE_TEST_SPEED   so many times as fast run the steady clock and the waits on a condition
//                      (default 1); 0: the clock stands still, and no request's time is ever over
// CORVANE_TEST_DAEMON  set: starting the HID daemon leaves a process behind, its number in "daemon"
//
// Starting and stopping bluetoothd makes the fake BlueZ own and release its bus name.

#include "GPIO/GPIOManager.h"
#include "hwcommon/fileUtil.h"
#include "hwtools/Condition.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <gio/gio.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string below(const std::string& path) {
    const char* const root = std::getenv("CORVANE_TEST_ROOT");
    if (root == nullptr) std::abort();
    return std::string(root) + '/' + path;
}

/// Where the library's snapshot of the system log goes.
std::string standIn(const char* path) {
    return std::strcmp(path, "/tmp/messages_ref") == 0 ? below(path) : path;
}

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::int64_t speed() {
    static const char* const text = std::getenv("CORVANE_TEST_SPEED");
    static const std::int64_t times = text == nullptr ? 1 : std::atoll(text);
    return times;
}

void tellFake(const char* method, const char* name) {
    GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr) return;
    GVariant* const reply = g_dbus_connection_call_sync(
        bus, "org.corvane.FakeBluez", "/", "org.corvane.FakeBluez1", method,
        g_variant_new("(s)", name), nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr);
    if (reply != nullptr) g_variant_unref(reply);
    g_object_unref(bus);
}

}  // namespace

extern "C" {

int system(const char* command) {
    std::ofstream(below("commands"), std::ios_base::app) << command << '\n';
    // As the real ones do.
    std::error_code ignored;
    constexpr char chatter[] = "Device setup complete\n";
    [[maybe_unused]] const auto written = write(STDOUT_FILENO, chatter, sizeof chatter - 1);
    if (std::strstr(command, "-x /usr/libexec/bluetooth/bluetoothd") != nullptr) {
        tellFake("Own", "org.bluez");
    } else if (std::strcmp(command, "/sbin/kill_and_wait.sh bluetoothd") == 0) {
        tellFake("Release", "org.bluez");
    } else if (std::strstr(command, "/sbin/kill_and_wait.sh rtk_hciattach") != nullptr) {
        std::filesystem::remove(below("sys/class/bluetooth/hci0"), ignored);
    } else if (std::strstr(command, "--exec /bin/rtk_hciattach") != nullptr) {
        std::filesystem::create_directory(below("sys/class/bluetooth/hci0"), ignored);
    } else if (std::strstr(command, "-x /bin/hw_bluez_hid") != nullptr &&
               std::getenv("CORVANE_TEST_DAEMON") != nullptr) {
        const pid_t daemon = fork();
        if (daemon == 0) execl("/bin/sleep", "sleep", "600", nullptr);
        std::ofstream(below("daemon")) << daemon;
    }
    return 0;
}

FILE* popen(const char* command, const char* mode) {
    // Of corvanectl's own only the archiver and the calls on the bus really run.
    if (std::strncmp(command, "tar ", 4) == 0 || std::strncmp(command, "dbus-send ", 10) == 0)
        return next<decltype(popen)>("popen")(command, mode);
    std::ofstream(below("commands"), std::ios_base::app) << command << '\n';
    FILE* const answer = std::fopen(below("log-answer").c_str(), "r");
    return answer != nullptr ? answer : std::tmpfile();
}

int pclose(FILE* file) {
    // Those that really run have a process that ends by itself.
    return std::fclose(file);
}

int lstat(const char* path, struct stat* status) noexcept {
    return next<decltype(lstat)>("lstat")(standIn(path).c_str(), status);
}

int unlink(const char* path) noexcept {
    return next<decltype(unlink)>("unlink")(standIn(path).c_str());
}

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return next<decltype(open)>("open")(standIn(path).c_str(), flags, mode);
}

int socket(int domain, int type, int protocol) noexcept {
    if (domain == AF_BLUETOOTH) return open("/dev/null", O_RDWR | O_CLOEXEC);
    return next<decltype(socket)>("socket")(domain, type, protocol);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (_IOC_TYPE(request) != 'H') {
        return next<decltype(ioctl)>("ioctl")(descriptor, request, argument);
    }
    if (request == HCIGETDEVINFO) static_cast<hci_dev_info*>(argument)->flags = 1U << HCI_UP;
    return 0;
}

int hci_open_dev(int /*device*/) { return open("/dev/null", O_RDWR | O_CLOEXEC); }
int hci_read_class_of_dev(int /*device*/, std::uint8_t* /*value*/, int /*timeout*/) { return 0; }
int hci_write_class_of_dev(int /*device*/, std::uint32_t /*value*/, int /*timeout*/) { return 0; }

}  // extern "C"

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return time_point(nanoseconds((now.tv_sec * 1'000'000'000LL + now.tv_nsec) * speed()));
}

// Its own would wait on the kernel's clock for a time of the fast one.
int hwtools::Condition::wait(unsigned milliseconds, bool /*reset*/) {
    const std::int64_t nanoseconds =
        milliseconds * 1'000'000LL / std::max<std::int64_t>(speed(), 1);
    const timespec pause{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    return timedOut;
}

int GPIO::GPIOManager::exportPin(unsigned /*pin*/) { return 1; }
int GPIO::GPIOManager::setDirection(unsigned /*pin*/, Direction /*direction*/) { return 1; }
int GPIO::GPIOManager::getValue(unsigned /*pin*/) { return 0; }
int GPIO::GPIOManager::setValue(unsigned /*pin*/, Value /*value*/) { return 1; }

bool hwcommon::fileUtil::exists(const std::string& path) {
    return std::filesystem::exists(below(path));
}

bool hwcommon::fileUtil::getFileContent(const std::string& path, std::string& content,
                                        std::ios_base::openmode /*mode*/) {
    std::ifstream file(below(path));
    std::ostringstream text;
    text << file.rdbuf();
    content = text.str();
    return file.is_open();
}

bool hwcommon::fileUtil::saveContentToFile(const std::string& path, const std::string& content,
                                           std::ios_base::openmode /*mode*/) {
    std::ofstream file(below(path));
    file << content;
    return file.good();
}
