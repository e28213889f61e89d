// Replaces every function through which the library reaches its machine. The test program exports
// them, so the dynamic linker uses them instead of those in the C library, libbluetooth and the
// host libraries. No command runs; no file or radio is touched.

#include "Edges.h"
#include "GPIO/GPIOManager.h"
#include "eepromXML.h"
#include "hwcommon/DBusProxy.h"
#include "hwcommon/fileUtil.h"
#include "hwtools/Condition.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <gio/gio.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using corvane::test::Clock;
using corvane::test::Edges;
using corvane::test::edges;
using corvane::test::Kind;

namespace {

// Not instrumented: the thread sanitizer itself calls open() and lstat() when it looks up names for
// a report, and holds locks meanwhile that instrumented code would wait for.
#define CORVANE_NOT_INSTRUMENTED [[gnu::no_sanitize_thread]]

template <class Function>
CORVANE_NOT_INSTRUMENTED Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

constexpr char snapshotPath[] = "/tmp/messages_ref";
constexpr char flagPath[] = "/tmp/bluetoothEnabled";

CORVANE_NOT_INSTRUMENTED bool isSnapshot(const char* path) {
    return std::strcmp(path, snapshotPath) == 0;
}

/// Returns the path of the file that replaces the snapshot.
std::string snapshot() {
    return edges().folder.empty() ? snapshotPath : edges().folder + "/messages_ref";
}

/// Returns the command with the test's folder in place of the machine's.
std::string inFolder(const char* command) {
    return std::regex_replace(command, std::regex("/tmp/|/var/log/"), edges().folder + "/");
}

/// Opens a descriptor that leads nowhere.
int openNothing(int flags) { return open("/dev/null", O_RDWR | flags); }

int failWith(int code) {
    errno = code;
    return -1;
}

/// Records a call that waits while a signal could interrupt it.
void noteIfInterruptible(const char* request) {
    sigset_t blocked{};
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    if (sigismember(&blocked, SIGALRM) == 0) edges().interruptible.insert(request);
}

/// A command's output, after as many interrupted reads as the test wants.
FILE* printed(const std::string& output) {
    FILE* const file = std::tmpfile();
    std::fwrite(output.data(), 1, output.size(), file);
    std::rewind(file);
    const auto read = [](void* source, char* buffer, std::size_t size) -> ssize_t {
        if (edges().interruptedReads > 0) {
            --edges().interruptedReads;
            return failWith(EINTR);
        }
        return static_cast<ssize_t>(std::fread(buffer, 1, size, static_cast<FILE*>(source)));
    };
    const auto close = [](void* source) { return std::fclose(static_cast<FILE*>(source)); };
    return fopencookie(file, "r", {read, nullptr, nullptr, close});
}

bool failsHci(const std::string& call) { return edges().failingHci.count(call) > 0; }

int hciIoctl(int descriptor, unsigned long request, void* argument) {
    if (descriptor < 0) return failWith(EBADF);
    Edges& machine = edges();
    if (request == HCIGETDEVINFO) {
        auto* info = static_cast<hci_dev_info*>(argument);
        machine.note(Kind::HCI, "HCIGETDEVINFO " + std::to_string(info->dev_id));
        if (!machine.hciPresent) return failWith(ENODEV);
        info->flags = machine.hciUp ? 1U << HCI_UP : 0;
        return 0;
    }
    noteIfInterruptible("ioctl");
    if (request == HCIDEVUP) {
        const auto device = static_cast<int>(reinterpret_cast<std::intptr_t>(argument));
        machine.note(Kind::HCI, "HCIDEVUP " + std::to_string(device));
        return 0;
    }
    const auto* option = static_cast<const hci_dev_req*>(argument);
    char text[64];
    std::snprintf(text, sizeof text, "ioctl 0x%08lX dev %u opt 0x%X", request, option->dev_id,
                  option->dev_opt);
    machine.note(Kind::HCI, text);
    return failsHci("ioctl") ? failWith(EIO) : 0;
}

}  // namespace

extern "C" {

int system(const char* command) {
    Edges& machine = edges();
    machine.note(Kind::SHELL, command);
    if (machine.echoShell) std::fprintf(stderr, "%s\n", command);
    if (machine.onShell) machine.onShell(command);
    // Nothing else may run on the machine that runs the test.
    if (machine.folder.empty() || std::strncmp(command, "cp ", 3) != 0) return 0;
    return next<decltype(system)>("system")(inFolder(command).c_str());
}

FILE* popen(const char* command, const char* mode) {
    Edges& machine = edges();
    machine.note(Kind::SHELL, std::string("popen ") + mode + " " + command);
    if (!machine.folder.empty()) {
        return next<decltype(popen)>("popen")(inFolder(command).c_str(), mode);
    }
    if (machine.onPipe) return machine.onPipe(command);
    std::string output;
    if (!machine.pipes.empty()) {
        const auto scripted = machine.pipes.front();
        machine.pipes.erase(machine.pipes.begin());
        if (!scripted) {
            errno = EMFILE;
            return nullptr;
        }
        output = *scripted;
    }
    return printed(output);
}

int pclose(FILE* file) {
    edges().note(Kind::SHELL, "pclose");
    if (!edges().folder.empty()) return next<decltype(pclose)>("pclose")(file);
    return std::fclose(file);
}

CORVANE_NOT_INSTRUMENTED int lstat(const char* path, struct stat* status) noexcept {
    auto* const real = next<decltype(lstat)>("lstat");
    if (!isSnapshot(path)) return real(path, status);
    if (!edges().folder.empty()) return real(snapshot().c_str(), status);
    status->st_mode = S_IFREG;
    status->st_uid = geteuid();
    status->st_nlink = 1;
    return 0;
}

int unlink(const char* path) noexcept {
    return next<decltype(unlink)>("unlink")(isSnapshot(path) ? snapshot().c_str() : path);
}

CORVANE_NOT_INSTRUMENTED int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    auto* const real = next<decltype(open)>("open");
    return isSnapshot(path) ? real(snapshot().c_str(), flags, mode) : real(path, flags, mode);
}

int socket(int domain, int type, int protocol) noexcept {
    if (domain != AF_BLUETOOTH) return next<decltype(socket)>("socket")(domain, type, protocol);
    edges().note(Kind::HCI, "socket " + std::to_string(domain) + " " +
                                std::to_string(type & ~SOCK_CLOEXEC) + " " +
                                std::to_string(protocol) +
                                ((type & SOCK_CLOEXEC) != 0 ? " cloexec" : ""));
    if (failsHci("socket")) return failWith(EAFNOSUPPORT);
    return openNothing((type & SOCK_CLOEXEC) != 0 ? O_CLOEXEC : 0);
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept {
    if (address->sa_family != AF_BLUETOOTH) {
        return next<decltype(bind)>("bind")(descriptor, address, length);
    }
    const auto* hci = reinterpret_cast<const sockaddr_hci*>(address);
    edges().note(Kind::HCI, "bind " + std::to_string(hci->hci_dev));
    return edges().hciPresent ? failWith(EALREADY) : 0;
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (_IOC_TYPE(request) == 'H') return hciIoctl(descriptor, request, argument);
    return next<decltype(ioctl)>("ioctl")(descriptor, request, argument);
}

int hci_open_dev(int device) {
    edges().note(Kind::HCI, "hci_open_dev " + std::to_string(device));
    return failsHci("hci_open_dev") ? -1 : openNothing(0);
}

int hci_read_class_of_dev(int /*device*/, uint8_t* deviceClass, int timeout) {
    noteIfInterruptible("read");
    edges().note(Kind::HCI, "hci_read_class_of_dev " + std::to_string(timeout));
    if (failsHci("hci_read_class_of_dev")) return -1;
    for (unsigned i = 0; i < 3; ++i) {
        deviceClass[i] = static_cast<uint8_t>(edges().adapterClass >> (8 * i));
    }
    return 0;
}

int hci_write_class_of_dev(int /*device*/, uint32_t deviceClass, int timeout) {
    noteIfInterruptible("write");
    char text[64];
    std::snprintf(text, sizeof text, "hci_write_class_of_dev 0x%06X %d", deviceClass, timeout);
    edges().note(Kind::HCI, text);
    if (failsHci("hci_write_class_of_dev")) return -1;
    edges().adapterClass = deviceClass;
    return 0;
}

// sd-bus waits here. So does GLib since 2.82, which goes on after a signal.
int ppoll(pollfd* descriptors, nfds_t count, const timespec* limit, const sigset_t* mask) {
    Dl_info caller{};
    dladdr(__builtin_return_address(0), &caller);
    if (std::strstr(caller.dli_fname, "libglib") == nullptr) noteIfInterruptible("ppoll");
    return next<decltype(ppoll)>("ppoll")(descriptors, count, limit, mask);
}

int nanosleep(const timespec* requested, timespec* remaining) {
    Edges& machine = edges();
    if (machine.sleeps) return next<decltype(nanosleep)>("nanosleep")(requested, remaining);
    machine.note(Kind::SLEEP, "nanosleep " + std::to_string(requested->tv_sec * 1000 +
                                                            requested->tv_nsec / 1'000'000));
    if (machine.interruptedSleeps > 0) {
        --machine.interruptedSleeps;
        *remaining = {0, requested->tv_nsec / 2};
        return failWith(EINTR);
    }
    return 0;
}

GDBusConnection* g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error) {
    if (edges().busMissing) return nullptr;
    return next<decltype(g_bus_get_sync)>("g_bus_get_sync")(type, cancellable, error);
}

}  // extern "C"

namespace {

int gpio(const std::string& call) {
    edges().note(Kind::GPIO, call);
    return edges().failingGpio.count(call) > 0 ? 0 : 1;
}

std::atomic<std::int64_t> stoppedAt{-1};  // nanoseconds; -1 while it runs
std::atomic<std::int64_t> clockReads{0};
std::atomic<std::int64_t> nanosecondsPerRead{0};

std::int64_t monotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

}  // namespace

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
    const std::int64_t hurried = ++clockReads * nanosecondsPerRead;
    const std::int64_t fixed = stoppedAt;
    return time_point(nanoseconds(fixed >= 0 ? fixed : monotonicNow() + hurried));
}

void Clock::stop() { stoppedAt = monotonicNow(); }
void Clock::advance(std::chrono::nanoseconds by) { stoppedAt += by.count(); }
bool Clock::stopped() { return stoppedAt >= 0; }
void Clock::hurry(std::chrono::nanoseconds perReading) { nanosecondsPerRead = perReading.count(); }
std::int64_t Clock::reads() { return clockReads; }

int hwtools::Condition::wait(unsigned milliseconds, bool reset) {
    Edges& machine = edges();
    if (machine.sleeps) {
        return next<int(Condition*, unsigned, bool)>("_ZN7hwtools9Condition4waitEjb")(
            this, milliseconds, reset);
    }
    machine.note(Kind::SLEEP, "wait " + std::to_string(milliseconds) + (reset ? " reset" : ""));
    if (machine.notifiedAtWait >= 0 && machine.notifiedAtWait-- == 0) return 0;
    if (Clock::stopped()) Clock::advance(std::chrono::milliseconds(milliseconds));
    return ETIMEDOUT;
}

void hwtools::Condition::notify() {
    if (edges().sleeps) return next<void(Condition*)>("_ZN7hwtools9Condition6notifyEv")(this);
    edges().note(Kind::SLEEP, "notify");
    if (edges().echoShell) std::fputs("notify\n", stderr);
}

bool hwcommon::DBusProxy::waitUntilDBusNameExist(const std::string& name, unsigned timeout) {
    if (edges().asksTheBus) {
        return next<bool(DBusProxy*, const std::string&, unsigned)>(
            "_ZN8hwcommon9DBusProxy22waitUntilDBusNameExistERKNSt7__cxx1112basic_stringIcSt11char_"
            "traitsIcESaIcEEEj")(this, name, timeout);
    }
    edges().note(Kind::SLEEP, "wait for " + name + " " + std::to_string(timeout));
    return edges().missingNames.count(name) == 0;
}

int GPIO::GPIOManager::exportPin(unsigned pin) { return gpio("export " + std::to_string(pin)); }

int GPIO::GPIOManager::setDirection(unsigned pin, Direction direction) {
    return gpio("direction " + std::to_string(pin) + " " +
                std::to_string(static_cast<int>(direction)));
}

int GPIO::GPIOManager::getValue(unsigned pin) { return edges().levels[pin]; }

int GPIO::GPIOManager::setValue(unsigned pin, Value value) {
    edges().levels[pin] = static_cast<int>(value);
    return gpio("set " + std::to_string(pin) + " " + std::to_string(static_cast<int>(value)));
}

std::string GetModelNameStringExternal(ModelType /*modelType*/) { return edges().modelName; }

bool hwcommon::fileUtil::exists(const std::string& path) {
    if (path == flagPath) return edges().flagFile.has_value();
    return edges().paths.count(path) > 0;
}

bool hwcommon::fileUtil::getFileContent(const std::string& path, std::string& content,
                                        std::ios_base::openmode /*mode*/) {
    if (path != flagPath || !edges().flagFile || !edges().flagReadable) return false;
    content = *edges().flagFile;
    return true;
}

bool hwcommon::fileUtil::saveContentToFile(const std::string& path, const std::string& content,
                                           std::ios_base::openmode mode) {
    const bool truncates = mode == (std::ios_base::out | std::ios_base::trunc);
    edges().note(Kind::FILE, (truncates ? "rewrite " : "odd mode ") + path + " '" + content + "'");
    if (!edges().flagWritable) return false;
    if (path == flagPath) edges().flagFile = content;
    return true;
}
