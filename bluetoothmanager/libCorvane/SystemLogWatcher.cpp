#include "BluetoothManager.h"

#include "Handles.h"
#include "LogAppender.h"
#include "RadioWirings.h"
#include "Shell.h"
#include "SystemCalls.h"

#include <log4cplus/loggingmacros.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* snapshotFile = corvane::systemLogSnapshot;
constexpr unsigned pollInterval =
    250;  // milliseconds; each poll runs a shell, diff and grep over the whole log

bool isOwnSnapshot() {
    struct stat status {};
    return lstat(snapshotFile, &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_uid == geteuid() && status.st_nlink == 1;
}

/// Creates the snapshot ourselves, then copies the log into it: in /tmp others could plant a link,
/// through which cp would write with our rights, or a FIFO, on which it would block. Nobody can
/// replace a file we own there. If the copy fails, an earlier snapshot stays.
/// @return false if the snapshot cannot be created
bool takeSnapshot() {
    if (isOwnSnapshot()) {
        corvane::runShell(std::string("cp ") + corvane::systemLog + " " + snapshotFile);
        return true;
    }
    unlink(snapshotFile);
    const corvane::Descriptor created(
        open(snapshotFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (created.get() < 0) return false;
    // cp changes this impossible modification time unless it has nothing to copy.
    const std::array<timespec, 2> untouched{};
    futimens(created.get(), untouched.data());
    corvane::runShell(std::string("cp ") + corvane::systemLog + " " + snapshotFile);
    struct stat status {};
    if (fstat(created.get(), &status) == 0 && status.st_mtim.tv_sec == 0) unlink(snapshotFile);
    return true;
}

/// Tells whether the command prints anything. Reads on after an interruption by a signal.
bool printsSomething(FILE* command) {
    std::array<char, 1024> output{};
    while (std::fread(output.data(), 1, output.size(), command) == 0) {
        if (std::ferror(command) == 0 || errno != EINTR) return false;
        std::clearerr(command);
    }
    return true;
}

}  // namespace

bool BluetoothManager::execAndWaitForSystemLog(std::function<bool()> action, std::string pattern,
                                               unsigned int timeout) {
    using std::chrono::nanoseconds;
    using std::chrono::steady_clock;

    const auto start = steady_clock::now();
    const bool comparable = takeSnapshot();
    if (!action()) {
        LOG4CPLUS_TRACE(LogAppender::getLogger(),
                        "execAndWaitForSystemLog log monitoring skipped: " << pattern);
        return false;
    }

    // A single quote in the pattern must not end the shell word.
    const std::string command = std::string("diff ") + corvane::systemLog + " " + snapshotFile +
                                " | grep " + corvane::quoted(pattern);
    while (true) {
        // Without a snapshot of ours the file is not read: it may be a FIFO.
        if (const corvane::PipePtr pipe{comparable ? popen(command.c_str(), "r") : nullptr}) {
            if (printsSomething(pipe.get())) {
                LOG4CPLUS_TRACE(LogAppender::getLogger(),
                                "execAndWaitForSystemLog found : " << pattern);
                return true;
            }
        } else {
            LOG4CPLUS_ERROR(LogAppender::getLogger(),
                            "execAndWaitForSystemLog command failed: " << command);
        }
        const auto elapsed =
            std::chrono::duration_cast<nanoseconds>(steady_clock::now() - start).count() / 1000000;
        if (std::int64_t{timeout} < elapsed) {
            LOG4CPLUS_ERROR(LogAppender::getLogger(),
                            "execAndWaitForSystemLog : Timeout while waiting for '"
                                << pattern << "' in " << corvane::systemLog);
            return false;
        }
        if (waitCondition.wait(pollInterval, false) != corvane::waitTimedOut) return false;
    }
}
