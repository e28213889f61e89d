#include "ManagerTest.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <time.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace corvane::test {

bool eventually(const std::function<bool()>& condition) {
    using WallClock = std::chrono::system_clock;
    const auto deadline = WallClock::now() + std::chrono::minutes(5);
    while (!condition()) {
        if (WallClock::now() > deadline) return false;
        const timespec pause{0, 1'000'000};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    }
    return true;
}

ManagerTest::ManagerTest() {
    static bool used = false;
    if (std::exchange(used, true)) {
        std::fputs("Each test needs its own process, with its own manager: use ctest.\n", stderr);
        std::_Exit(2);
    }
    captureLog();
    useBoard(1, 3);
}

void ManagerTest::useBoard(int modelType, int productFamily) {
    bluez.reply("/org/corvane/Hardware", "GetHardwareInfo",
                "('<identity><model>" + std::to_string(modelType) + "</model><family>" +
                    std::to_string(productFamily) +
                    "</family><serial>SN12345678</serial><revision>7</revision></identity>',)");
}

BluetoothManager& ManagerTest::manager() {
    BluetoothManager& instance = BluetoothManager::getInstance();
    if (!made) {
        made = true;
        forget();
    }
    return instance;
}

std::vector<std::string> ManagerTest::happened(std::initializer_list<Kind> kinds) {
    std::vector<Event> events = edges().events();
    for (auto& [time, text] : bluez.calls()) events.push_back({time, Kind::BUS, text});
    // The library's calls are synchronous, so sorting by time restores the order.
    std::stable_sort(events.begin(), events.end(),
                     [](const Event& a, const Event& b) { return a.time < b.time; });
    std::vector<std::string> texts;
    for (const Event& event : events) {
        if (std::find(kinds.begin(), kinds.end(), event.kind) != kinds.end()) {
            texts.push_back(event.text);
        }
    }
    return texts;
}

std::vector<std::string> ManagerTest::errors() {
    std::vector<std::string> messages;
    for (const auto& record : edges().log()) {
        if (record.level == "ERROR") messages.push_back(record.message);
    }
    return messages;
}

void ManagerTest::forget() {
    edges().forget();
    bluez.forget();
}

void ManagerTest::start(std::shared_ptr<BluetoothRequest> request) {
    ASSERT_TRUE(eventually([&] { return manager().makeRequest(request); }));
}

void ManagerTest::listDevices(const std::vector<Device>& devices) {
    bluez.setDevices(devices);
    manager().scanDevicesInfo();
    forget();
}

const int& ManagerTest::addHostsSource() {
    static int runs = 0;
    runs = 0;
    g_idle_add([](gpointer /*data*/) -> gboolean { return ++runs < 1000; }, nullptr);
    return runs;
}

}  // namespace corvane::test

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    // GLib prints a critical warning and continues; here it is a failure.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    const int result = RUN_ALL_TESTS();
    std::fflush(nullptr);
#ifdef __SANITIZE_ADDRESS__
    __lsan_do_leak_check();
#endif
    // Not exit(): after a request, destroying the manager would end in std::terminate().
    std::_Exit(result);
}
