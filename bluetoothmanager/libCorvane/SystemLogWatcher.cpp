#include "BluetoothManager.h"

#include "Handles.h"
#include "Logging.h"
#include "Shell.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char snapshotFile[] = "/tmp/messages_ref";
constexpr char snapshot[] = "cp /var/log/messages /tmp/messages_ref";
constexpr unsigned pollInterval =
    250;  // milliseconds; bounds the cost of a shell, diff and grep over the whole log

/// Makes sure that the snapshot goes into a file of our own. Anyone may put something in its place
/// in the folder for everybody: a link, through which cp would write with our rights, or a pipe, on
/// which it would wait for ever. What is ours nobody else can replace there.
bool ownSnapshotFile() {
    struct stat status {};
    if (lstat(snapshotFile, &status) == 0) {
        if (S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1) {
            return true;
        }
        unlink(snapshotFile);
    }
    const int created =
        open(snapshotFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    return created >= 0 && close(created) == 0;
}

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
    if (ownSnapshotFile()) {
        corvane::runShell(snapshot);
    } else {
        CORVANE_ERROR("execAndWaitForSystemLog"
                      << " : no snapshot of the system log, cannot take into use: "
                      << snapshotFile);
    }
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
