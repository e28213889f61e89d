// A host with a timer whose signal handler does not restart interrupted calls.

#include "LogAppender.h"
#include "TestBus.h"
#include "hwcommon/DBusBluetoothHidProxy.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"
#include "hwtools/Condition.h"

#include <gtest/gtest.h>
#include <log4cplus/loggingmacros.h>
#include <sdbus-c++/sdbus-c++.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t signals = 0;

/// Interrupts this thread every 10 ms.
class Timer {
public:
    Timer() {
        struct sigaction action {};
        action.sa_handler = [](int) { signals = signals + 1; };
        sigaction(SIGALRM, &action, nullptr);
        const itimerval every10ms{{0, 10000}, {0, 10000}};
        setitimer(ITIMER_REAL, &every10ms, nullptr);
    }
    ~Timer() {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        EXPECT_GT(signals, 5) << "nothing was interrupted";
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// A thread that is not interrupted.
    template <class Action>
    static std::thread undisturbed(const Action& action) {
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
        std::thread thread(action);
        pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
        return thread;
    }
};

}  // namespace

TEST(Interrupted, ConditionWaitsItsTimeOrUntilNotified) {
    const Timer timer;
    hwtools::Condition condition(false);
    const auto start = Clock::now();
    EXPECT_EQ(condition.wait(200, false), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, 200ms);
    std::thread notifier = Timer::undisturbed([&condition] {
        std::this_thread::sleep_for(100ms);
        condition.notify();
    });
    EXPECT_EQ(condition.wait(600000, false), 0);
    notifier.join();
}

TEST(Interrupted, BusCallsGetTheirReplies) {
    const corvane::test::PrivateBus bus;
    corvane::test::FakeBluez services(bus.address());
    services.reply("*", "GetHardwareInfo", "('<identity/>',)", 0, 300ms);
    services.reply("*", "Connect", "('Connect success',)", 0, 300ms);
    services.reply("/", "GetManagedObjects", "(@a{oa{sa{sv}}} {},)", 0, 300ms);
    const auto connection = sdbus::createSystemBusConnection();
    const Timer timer;
    EXPECT_EQ(hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo(), "<identity/>");
    EXPECT_EQ(hwcommon::DBusBluetoothHidProxy(*connection).connectBtHidDevice("address"),
              "Connect success");
    hwcommon::DBusProxy proxy(*connection);
    const auto start = Clock::now();
    EXPECT_FALSE(proxy.waitUntilDBusNameExist("org.corvane.Late", 300));
    EXPECT_TRUE(proxy.waitUntilDBusNameExist("org.bluez", 600));
    EXPECT_GE(Clock::now() - start, 900ms);
}

// Standard error is a pipe with a slow reader: a write blocks and is interrupted.
TEST(Interrupted, LogLosesNoRecord) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const int standardError = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    const Timer timer;
    std::string output;
    std::thread reader = Timer::undisturbed([&output, end = ends[0]] {
        std::this_thread::sleep_for(300ms);
        std::array<char, 4096> buffer{};
        for (ssize_t count = 0; (count = read(end, buffer.data(), buffer.size())) > 0;) {
            output.append(buffer.data(), static_cast<std::size_t>(count));
        }
    });
    const std::string text(1000, 'x');
    constexpr int records = 200;  // more than a pipe holds
    for (int i = 0; i < records; ++i) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "record " << i << ' ' << text << " end");
    }
    dup2(standardError, STDERR_FILENO);
    close(standardError);
    reader.join();
    close(ends[0]);
    for (int i = 0; i < records; ++i) {
        ASSERT_NE(output.find("record " + std::to_string(i) + ' ' + text + " end\n"),
                  std::string::npos)
            << i;
    }
}
