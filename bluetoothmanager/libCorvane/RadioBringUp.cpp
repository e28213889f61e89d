#include "BluetoothManager.h"

#include "Handles.h"
#include "LogAppender.h"
#include "RadioWirings.h"
#include "Shell.h"
#include "SystemCalls.h"
#include "hwcommon/fileUtil.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <log4cplus/loggingmacros.h>

#include <cerrno>
#include <charconv>
#include <ctime>
#include <string_view>

#include <sys/ioctl.h>
#include <sys/socket.h>

using corvane::EnableLine;
using corvane::RadioWiring;
using corvane::runShell;

namespace {

const RadioWiring& wiringOf(int hardwareVariant) {
    return corvane::radioWirings.at(static_cast<std::size_t>(hardwareVariant));
}

// We rely on the number; the host's GPIO library names it.
constexpr auto output = static_cast<GPIO::Direction>(1);

constexpr std::string_view hciName = "hci0";
constexpr unsigned upAttempts = 10;
constexpr timespec upPause{0, 500'000'000};

/// The number behind "hci".
std::uint16_t hciNumber() {
    constexpr std::string_view digits = hciName.substr(std::string_view("hci").size());
    std::uint16_t number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

void sleepUninterrupted(timespec remaining) {
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

bool BluetoothManager::initGPIOs() {
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    bool success = true;
    for (std::size_t i = 0; i < wiring.lineCount; ++i) {
        const unsigned pin = wiring.lines.at(i).pin;
        if (gpioManager.exportPin(pin) != 1) success = false;
        if (gpioManager.setDirection(pin, output) != 1) success = false;
    }
    return success;
}

bool BluetoothManager::enableGpio(bool enable, bool forced) {
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    const int level = enable ? 1 : 0;
    bool success = true;
    for (std::size_t i = 0; i < wiring.lineCount; ++i) {
        const EnableLine& line = wiring.lines.at(i);
        // Deliberate: an ordinary switch-off leaves the shared line up, because it also powers the
        // Wi-Fi. Held by EnableGpio.LeavesTheSharedLineUpUnlessForced.
        if (line.shared && !enable && !forced) continue;
        if (line.name != nullptr) {
            if (static_cast<int>(gpioManager.getValue(line.pin)) == level) continue;
            LOG4CPLUS_DEBUG(LogAppender::getLogger(),
                            "enableGpio : " << line.name << " = " << enable);
        }
        if (gpioManager.setValue(line.pin, static_cast<GPIO::Value>(level)) != 1) success = false;
    }
    return success;
}

void BluetoothManager::loadModules(bool load) {
    if (!load) {
        runShell("modprobe -r hci_uart_rtk hci_uart rfcomm bluetooth");
        return;
    }
    if (hwcommon::fileUtil::exists(corvane::hciDevice)) return;
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    LOG4CPLUS_DEBUG(LogAppender::getLogger(), "loadModules" << wiring.loadingMessage);
    if (wiring.waitsForWifi) {
        // The modules are loaded even if the interface never appears.
        for (unsigned i = 0;
             i < corvane::wifiPolls && !hwcommon::fileUtil::exists(corvane::wifiInterface); ++i) {
            if (waitCondition.wait(corvane::wifiPoll, false) != corvane::waitTimedOut) break;
        }
    }
    std::string commandLine;
    for (const char* module :
         {corvane::bluetoothModule, wiring.serialDriver, corvane::rfcommModule}) {
        commandLine += std::string("insmod /usr/lib/modules/`uname -r`/kernel/") + module + ";";
    }
    runShell(commandLine);
}

bool BluetoothManager::hciattach(bool attach) {
    const RadioWiring& wiring = wiringOf(hardwareVariant);
    if (!attach) {
        runShell(wiring.detach);
        return true;
    }
    // Deliberate: not waited for. The marker tells which log line to look for; waiting for the
    // system log would delay every switch-on. Held by HciAttach.DoesNotWaitForTheSystemLog.
    [[maybe_unused]] const char* const marker = wiring.attachMarker;
    releaseDeadControllers();
    runShell(wiring.attach);
    if (!wiring.attachRaisesDevice) hciUp();
    return true;
}

bool BluetoothManager::hciUp() const {
    // Without a socket every query fails and the loop times out.
    const corvane::Descriptor hciSocket(socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, BTPROTO_HCI));
    const std::uint16_t number = hciNumber();
    for (unsigned attempt = 0; attempt < upAttempts; ++attempt) {
        hci_dev_info info{};
        info.dev_id = number;
        if (ioctl(hciSocket.get(), HCIGETDEVINFO, &info) < 0) {
            LOG4CPLUS_INFO(LogAppender::getLogger(), "Scanning for " << hciName << "...");
        } else if ((info.flags & (1U << HCI_UP)) != 0) {
            LOG4CPLUS_INFO(LogAppender::getLogger(), hciName << " is up.");
            return true;
        } else {
            const corvane::SignalsBlocked uninterrupted;
            ioctl(hciSocket.get(), HCIDEVUP, number);
            LOG4CPLUS_INFO(LogAppender::getLogger(), "Waiting for " << hciName << " to become up");
        }
        sleepUninterrupted(upPause);
    }
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Timeout trying to bring up " << hciName);
    return false;
}
