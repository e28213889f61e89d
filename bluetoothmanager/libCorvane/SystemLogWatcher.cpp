#include "BluetoothManager.h"

#include "Handles.h"
#include "Logging.h"
#include "Shell.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace {

constexpr char snapshot[] = "cp /var/log/messages /tmp/messages_ref";
constexpr unsigned pollInterval =
    250;  // milliseconds; bounds the cost of a shell, diff and grep over the whole log

}  // namespace

bool BluetoothManager::execAndWaitForSystemLog(std::function<bool()> action, std::string pattern,
                                               unsigned int timeout) {
    using std::chrono::nanoseconds;
    using std::chrono::steady_clock;

    if (pattern.find('\'') != std::string::npos) {
        CORVANE_ERROR("execAndWaitForSystemLog"
                      << " : pattern refused, it holds a single quote: " << pattern);
        return false;
    }
    const auto start = steady_clock::now();
    corvane::runShell(snapshot);
    if (!action()) {
        CORVANE_TRACE("execAndWaitForSystemLog"
                      << " log monitoring skipped: " << pattern);
        return false;
    }

    const std::string command = "diff /var/log/messages /tmp/messages_ref | grep '" + pattern + "'";
    while (true) {
        if (const corvane::PipePtr pipe{popen(command.c_str(), "r")}) {
            std::array<char, 1024> output{};
            if (std::fread(output.data(), 1, output.size(), pipe.get()) > 0) {
                CORVANE_TRACE("execAndWaitForSystemLog"
                              << " found : " << pattern);
                return true;
            }
        } else {
            CORVANE_ERROR("execAndWaitForSystemLog"
                          << " command failed: " << command);
        }
        const auto elapsed =
            std::chrono::duration_cast<nanoseconds>(steady_clock::now() - start).count() / 1000000;
        if (std::int64_t{timeout} < elapsed) {
            CORVANE_ERROR("execAndWaitForSystemLog"
                          << " : Timeout while waiting for '" << pattern
                          << "' in /var/log/messages");
            return false;
        }
        if (waitCondition.wait(pollInterval, false) != hwtools::Condition::timedOut) return false;
    }
}
