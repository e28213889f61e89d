#include "Session.h"

#include "Text.h"

#include <log4cplus/loglevel.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace corvanectl {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// Shows on a terminal what a command waits for, with the time left or the time gone. A thread of
/// its own draws it; destruction removes it.
class Progress {
public:
    explicit Progress(const std::string& command) {
        show(command, milliseconds(0), silence);
        artist = std::thread([this] {
            for (std::unique_lock<std::mutex> lock(mutex); !done;
                 change.wait_for(lock, milliseconds(200))) {
                if (steady_clock::now() >= visibleFrom) draw();
            }
        });
    }

    ~Progress() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            done = true;
            std::fputs(emptyLine, Streams::errors);
        }
        change.notify_one();
        artist.join();
    }

    /// Shows what is waited for.
    /// @param limit  how long at most; 0 when unknown
    /// @param delay  before it is shown
    void show(const std::string& newLabel, milliseconds limit, milliseconds delay) {
        const std::lock_guard<std::mutex> lock(mutex);
        label = newLabel;
        length = limit;
        begin = steady_clock::now();
        visibleFrom = begin + delay;
        change.notify_one();
    }

    /// Prints a line of its own.
    void step(const std::string& line) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            std::fprintf(Streams::errors, "%s  %s\n", emptyLine, line.c_str());
        }
        show("  waiting", milliseconds(0), silence);
    }

private:
    static constexpr char emptyLine[] = "\r\x1b[K";
    static constexpr seconds silence{2};

    void draw() const {
        const auto gone = steady_clock::now() - begin;
        // Rounded up, so that it does not say 0 while there is still something to wait for.
        const auto left = std::chrono::ceil<seconds>(std::max(length - gone, gone * 0));
        std::string line =
            label + "  " +
            (length.count() == 0 ? std::to_string(duration_cast<seconds>(gone).count()) + " s"
                                 : std::to_string(left.count()) + " s left");
        // The last column stays free: some terminals wrap there.
        const std::size_t width = terminalColumns(Streams::errors);
        line.resize(std::min(line.size(), width > 0 ? width - 1 : 0));
        std::fprintf(Streams::errors, "%s%s", emptyLine, line.c_str());
    }

    std::mutex mutex;
    std::condition_variable change;
    std::string label;
    steady_clock::duration length{0};
    steady_clock::time_point begin;
    steady_clock::time_point visibleFrom;
    bool done = false;
    std::thread artist;
};

namespace {

/// The last part of the path.
std::string fileOf(const LogRecord& record) {
    return record.getFile().substr(record.getFile().rfind('/') + 1);  // npos + 1 is 0: the whole
}

void printJson(const Invocation& invocation, const Result& result, const LoggedErrors& errors,
               milliseconds duration) {
    const auto number = static_cast<std::size_t>(result.status);
    const std::vector<std::string> names = choicesOf(outcomes);
    const bool known = invocation.command != nullptr;
    Json object{{"command", known ? Json(invocation.command->name) : Json()},
                {"arguments", invocation.arguments},
                {"status", number},
                {"outcome", names.at(std::min(number, names.size() - 1))},
                {"problem", result.problem.empty() ? Json() : Json(result.problem)},
                {"result", result.data},
                {"duration_ms", duration.count()},
                {"errors", Json::array()},
                {"errors_total", errors.total}};
    for (const LogRecord& record : errors.first) {
        object["errors"].push_back(
            {{"level", log4cplus::getLogLevelManager().toString(record.getLogLevel())},
             {"message", record.getMessage()},
             {"file", fileOf(record)},
             {"line", record.getLine()},
             {"function", record.getFunction()}});
    }
    // In ASCII; bytes that are not UTF-8 become U+FFFD.
    const std::string line = object.dump(-1, ' ', true, Json::error_handler_t::replace);
    std::fprintf(Streams::output, "%s\n", line.c_str());
}

void printText(const Invocation& invocation, const Result& result, const LoggedErrors& errors) {
    constexpr std::size_t errorsShown = 5;
    if (!result.text.empty()) std::fprintf(Streams::output, "%s\n", result.text.c_str());
    std::fflush(Streams::output);
    if (!result.problem.empty()) {
        const std::string name =
            invocation.command == nullptr ? "" : std::string(invocation.command->name) + ": ";
        std::fprintf(Streams::errors, "corvanectl: %s%s\n", name.c_str(), result.problem.c_str());
    }
    const std::size_t shown = std::min(errors.first.size(), errorsShown);
    for (std::size_t i = 0; i < shown; ++i) {
        const LogRecord& record = errors.first[i];
        std::fprintf(Streams::errors, "  logged: %s (%s:%d)\n",
                     escaped(record.getMessage()).c_str(), fileOf(record).c_str(),
                     record.getLine());
    }
    if (errors.total > shown) {
        std::fprintf(Streams::errors, "  logged: %zu more; --log-file keeps them all\n",
                     errors.total - shown);
    }
}

}  // namespace

Session::Session(const Options& chosen, LogRecords& logRecords)
    : options(chosen),
      records(logRecords),
      host(logRecords,
           [this](const std::string& what, milliseconds limit) { waitFor(what, limit); }) {}

bool Session::run(const Invocation& invocation) {
    if (invocation.command == nullptr) return true;
    Interrupt::count = 0;
    records.restart();
    if (!options.json && terminalColumns(Streams::errors) > 0) {
        progress = std::make_shared<Progress>(invocation.command->name);
    }
    const auto start = steady_clock::now();
    Result result = runQuietly(invocation);
    if (Interrupt::count > 0 && result.status == ExitStatus::success) {
        result.status = ExitStatus::interrupted;
    }
    return report(invocation, result, duration_cast<milliseconds>(steady_clock::now() - start));
}

bool Session::runLine(const std::string& line) {
    try {
        return run(parseLine(line));
    } catch (const Failure& failure) {
        records.restart();
        return report({}, failure.result());
    }
}

Result Session::runQuietly(const Invocation& invocation) {
    try {
        return invocation.command->run(*this, invocation);
    } catch (const Failure& failure) {
        return failure.result();
    } catch (const std::exception& error) {
        return Failure(ExitStatus::unexpected, std::string("unexpected error: ") + error.what())
            .result();
    }
}

void Session::waitFor(const std::string& what, milliseconds limit) {
    if (progress) progress->show(what, limit, milliseconds(0));
}

void Session::showSteps() {
    if (!progress) return;
    records.listen(
        [this](const LogRecord& record) { progress->step(escaped(record.getMessage())); });
}

bool Session::report(const Invocation& invocation, const Result& result, milliseconds duration) {
    records.listen({});
    progress.reset();
    if (options.json) {
        printJson(invocation, result, records.errors(), duration);
    } else {
        printText(invocation, result, records.errors());
    }
    std::fflush(Streams::output);
    if (status == ExitStatus::success) status = result.status;
    if (stopping || result.status == ExitStatus::interrupted) return false;
    return result.status == ExitStatus::success || options.keepGoing;
}

void Session::leave() {
    if (options.tearDown && host.managerIsUp()) host.manager().setBluetoothServices(false);
    if (std::fflush(Streams::output) != 0 || std::ferror(Streams::output) != 0) {
        std::fputs("corvanectl: cannot write to standard output\n", Streams::errors);
        if (status == ExitStatus::success) status = ExitStatus::unexpected;
    }
    std::quick_exit(static_cast<int>(status));
}

}  // namespace corvanectl
