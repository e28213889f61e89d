#include "hwcommon/DBusHardwareProxy.h"

#include "Bus.h"
#include "HardwareService.h"
#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>

#include <sys/eventfd.h>
#include <unistd.h>

namespace hwcommon {

namespace {

constexpr char serviceName[] = "org.corvane.Hardware";
constexpr char objectPath[] = "/org/corvane/Hardware";
constexpr char interfaceName[] = "org.corvane.Hardware1";

// The service reads a small memory chip. On a busy board bluetoothd gets the same time.
constexpr std::chrono::seconds answerLimit{5};

constexpr std::chrono::minutes silentPause{1};
std::atomic<NameWatch::Clock::time_point> silentUntil{};

}  // namespace

/// Notifies an observer on its own thread, until it is destroyed or the bus goes away.
struct DBusHardwareProxy::Private {
    explicit Private(DBusHardwareObserver& observer)
        : stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        try {
            if (stop < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
            thread = std::thread([this, &observer] { watch(observer); });
        } catch (const std::system_error& error) {
            LOG4CPLUS_ERROR(LogAppender::getLogger(),
                            "Cannot watch " << serviceName << ": " << error.what());
        }
    }

    ~Private() {
        if (thread.joinable()) {
            stopped = true;
            eventfd_write(stop, 1);
            thread.join();
        }
        if (stop >= 0) ::close(stop);
    }

    Private(const Private&) = delete;
    Private& operator=(const Private&) = delete;

    void watch(DBusHardwareObserver& observer) const {
        const NoSignals undisturbed;
        bool available = false;
        const auto tell = [&](bool now) {
            if (now == available) return;
            available = now;
            observer.hardwareServiceAvailable(now);
        };
        try {
            NameWatch names(serviceName,
                            [&tell](const std::string& owner) { tell(!owner.empty()); });
            tell(!names.owner(answerLimit).empty());
            while (!stopped)
                names.waitForMore(NameWatch::Clock::now() + std::chrono::hours(1), stop);
        } catch (const sdbus::Error& error) {
            LOG4CPLUS_ERROR(LogAppender::getLogger(),
                            "No longer watching " << serviceName << ": " << error.what());
            tell(false);
        }
    }

    int stop;
    std::atomic<bool> stopped{false};
    std::thread thread;
};

DBusHardwareProxy::DBusHardwareProxy(DBusHardwareObserver* observer)
    : d(observer == nullptr ? nullptr : new Private(*observer)) {}

DBusHardwareProxy::~DBusHardwareProxy() { delete d; }

std::string DBusHardwareProxy::getHardwareInfo() {
    const NoSignals undisturbed;
    const auto start = NameWatch::Clock::now();
    try {
        const auto connection = sdbus::createSystemBusConnection();
        const auto service = proxyFor(*connection, serviceName, objectPath);
        std::string identity;
        service->callMethod("GetHardwareInfo")
            .onInterface(interfaceName)
            .withTimeout(answerLimit)
            .storeResultsTo(identity);
        silentUntil = start;
        return identity;
    } catch (const std::exception& error) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Cannot read the board identity from "
                                                      << serviceName << ": " << error.what());
        const auto end = NameWatch::Clock::now();
        silentUntil = end - start >= answerLimit ? end + silentPause : start;
        return {};
    }
}

bool hardwareServiceIsSilent() { return NameWatch::Clock::now() < silentUntil.load(); }

}  // namespace hwcommon
