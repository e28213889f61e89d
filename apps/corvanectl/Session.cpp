#include "Session.h"

#include "Text.h"

#include <log4cplus/loglevel.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace corvanectl {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds redrawInterval{200};
constexpr milliseconds silence{2000};
constexpr milliseconds unknown{0};
constexpr std::size_t errorsShown = 5;

/// The last part of the path.
std::string fileOf(const LogRecord& record) {
    return record.getFile().substr(record.getFile().rfind('/') + 1);  // npos + 1 is 0: the whole
}

Json toJson(const LogRecord& record) {
    return {{"level", log4cplus::getLogLevelManager().toString(record.getLogLevel())},
            {"message", record.getMessage()},
            {"file", fileOf(record)},
            {"line", record.getLine()},
            {"function", record.getFunction()}};
}

}  // namespace

Progress::Progress(const std::string& command) {
    show(command, unknown, silence);
    artist = std::thread([this] {
        for (std::unique_lock<std::mutex> lock(mutex); !done;
             change.wait_for(lock, redrawInterval)) {
            if (Clock::now() >= visibleFrom) draw();
        }
    });
}

Progress::~Progress() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        done = true;
        clear();
    }
    change.notify_one();
    artist.join();
}

void Progress::show(const std::string& newLabel, milliseconds limit, milliseconds delay) {
    const std::lock_guard<std::mutex> lock(mutex);
    label = newLabel;
    length = limit;
    begin = Clock::now();
    visibleFrom = begin + delay;
    change.notify_one();
}

void Progress::step(const std::string& line) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        clear();
        std::fprintf(Streams::errors, "  %s\n", line.c_str());
    }
    show("  waiting", unknown, silence);
}

void Progress::clear() { std::fputs("\r\x1b[K", Streams::errors); }

void Progress::draw() {
    const auto gone = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
    // Rounded up, so that it does not say 0 while there is still something to wait for.
    const auto left = std::max(length - gone, milliseconds(0)) + milliseconds(999);
    std::string line = label + "  " +
                       (length.count() == 0 ? std::to_string(gone.count() / 1000) + " s"
                                            : std::to_string(left.count() / 1000) + " s left");
    // The last column stays free: some terminals wrap there.
    const std::size_t width = terminalColumns(Streams::errors);
    line.resize(std::min(line.size(), width > 0 ? width - 1 : 0));
    std::fprintf(Streams::errors, "\r\x1b[K%s", line.c_str());
}

Session::Session(const Options& chosen, LogRecords& logRecords)
    : options(chosen),
      records(logRecords),
      host(logRecords,
           [this](const std::string& what, milliseconds limit) { waitFor(what, limit); }) {}

std::size_t Session::widthOrUsual() {
    const std::size_t width = terminalColumns(Streams::output);
    return width > 0 ? width : 80;
}

ExitStatus Session::run(const Invocation& invocation) {
    using std::chrono::steady_clock;
    Interrupt::count = 0;
    records.restart();
    if (!options.json && terminalColumns(Streams::errors) > 0) {
        progress = std::make_unique<Progress>(invocation.command->name);
    }
    const auto start = steady_clock::now();
    const Result result = runQuietly(invocation);
    print(invocation, result,
          std::chrono::duration_cast<milliseconds>(steady_clock::now() - start));
    const bool left = Interrupt::count > 0 && result.status == ExitStatus::success;
    remember(left ? ExitStatus::interrupted : result.status);
    return left ? ExitStatus::interrupted : result.status;
}

Result Session::runQuietly(const Invocation& invocation) {
    try {
        return invocation.command->run(*this, invocation);
    } catch (const Failure& failure) {
        return {failure.status, "", failure.what(), nullptr};
    } catch (const std::exception& error) {
        return {ExitStatus::unexpected, "", std::string("unexpected error: ") + error.what(),
                nullptr};
    }
}

ExitStatus Session::report(const Failure& failure) {
    records.restart();
    print({}, {failure.status, "", failure.what(), nullptr});
    remember(failure.status);
    return failure.status;
}

void Session::waitFor(const std::string& what, milliseconds limit) {
    if (progress) progress->show(what, limit, milliseconds(0));
}

void Session::showSteps() {
    if (!progress) return;
    records.listen(
        [this](const LogRecord& record) { progress->step(escaped(record.getMessage())); });
}

void Session::print(const Invocation& invocation, const Result& result, milliseconds duration) {
    records.listen({});
    progress.reset();
    if (options.json) {
        printJson(invocation, result, duration);
        return;
    }
    if (!result.text.empty()) std::fprintf(Streams::output, "%s\n", result.text.c_str());
    std::fflush(Streams::output);
    if (!result.problem.empty()) {
        const std::string name = invocation.command == nullptr ? "" : invocation.command->name;
        std::fprintf(Streams::errors, "corvanectl: %s%s%s\n", name.c_str(),
                     name.empty() ? "" : ": ", result.problem.c_str());
    }
    const LoggedErrors errors = records.errors();
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

void Session::printJson(const Invocation& invocation, const Result& result, milliseconds duration) {
    const LoggedErrors errors = records.errors();
    const auto number = static_cast<std::size_t>(result.status);
    const std::string outcome = part(outcomes, number);
    const bool known = invocation.command != nullptr;
    Json object{{"command", known ? Json(invocation.command->name) : Json()},
                {"arguments", invocation.arguments},
                {"status", number},
                {"outcome", outcome.empty() ? interruptedOutcome : outcome},
                {"problem", result.problem.empty() ? Json() : Json(result.problem)},
                {"result", result.data},
                {"duration_ms", duration.count()},
                {"errors", Json::array()},
                {"errors_total", errors.total}};
    for (const LogRecord& record : errors.first) object["errors"].push_back(toJson(record));
    // In ASCII; bytes that are not UTF-8 become U+FFFD.
    const std::string line = object.dump(-1, ' ', true, Json::error_handler_t::replace);
    std::fprintf(Streams::output, "%s\n", line.c_str());
    std::fflush(Streams::output);
}

bool Session::goesOn(ExitStatus last) const {
    if (stopping || last == ExitStatus::interrupted) return false;
    return last == ExitStatus::success || options.keepGoing;
}

void Session::leave() {
    if (options.tearDown && host.managerIsUp()) host.manager().setBluetoothServices(false);
    if (std::fflush(Streams::output) != 0 || std::ferror(Streams::output) != 0) {
        std::fputs("corvanectl: cannot write to standard output\n", Streams::errors);
        remember(ExitStatus::unexpected);
    }
    std::quick_exit(static_cast<int>(status));
}

}  // namespace corvanectl
