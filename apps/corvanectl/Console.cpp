#include "Console.h"

#include "Input.h"
#include "Text.h"

#include <log4cplus/loglevel.h>

#include <algorithm>
#include <cstdio>

namespace corvanectl {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds redrawInterval{200};
constexpr milliseconds silence{2000};
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

Progress::Progress(const std::string& command)
    : label(command), visibleFrom(start + silence), artist([this] { drawUntilDone(); }) {}

Progress::~Progress() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        done = true;
        clear();
    }
    change.notify_one();
    artist.join();
}

void Progress::waitFor(const std::string& what, milliseconds limit) {
    const std::lock_guard<std::mutex> lock(mutex);
    label = what;
    length = limit;
    start = Clock::now();
    visibleFrom = start;
    draw();
}

void Progress::step(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex);
    clear();
    std::fprintf(Streams::errors(), "  %s\n", line.c_str());
    label = "  waiting";
    start = Clock::now();
    visibleFrom = start + silence;
}

void Progress::drawUntilDone() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!done) {
        if (Clock::now() >= visibleFrom) draw();
        change.wait_for(lock, redrawInterval);
    }
}

void Progress::clear() {
    if (drawn) std::fputs("\r\x1b[K", Streams::errors());
    drawn = false;
}

void Progress::draw() {
    constexpr std::size_t widestBar = 40;
    const auto gone = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    const std::size_t width = terminalColumns(Streams::errors());
    std::string line = label + "  ";
    if (length.count() == 0) {
        line += std::to_string(gone.count() / 1000) + " s";
    } else {
        // Rounded up, so that it does not say 0 while there is still something to wait for.
        const auto left = std::max(length - gone, milliseconds(0)) + milliseconds(999);
        const std::string time = std::to_string(left.count() / 1000) + " s left";
        const std::size_t taken = line.size() + time.size() + 5;
        const std::size_t bar = std::min(width > taken ? width - taken : 0, widestBar);
        const auto full = static_cast<std::size_t>(static_cast<long>(bar) *
                                                   std::min(gone, length).count() / length.count());
        if (bar > 0) line += '[' + std::string(full, '#') + std::string(bar - full, '.') + "] ";
        line += time;
    }
    // The last column stays free: some terminals wrap there.
    line.resize(std::min(line.size(), width > 0 ? width - 1 : 0));
    std::fprintf(Streams::errors(), "\r\x1b[K%s", line.c_str());
    drawn = true;
}

std::size_t Console::width() { return terminalColumns(Streams::output()); }

void Console::begin(const Command& command) {
    records.restart();
    if (!json && terminalColumns(Streams::errors()) > 0) {
        progress = std::make_unique<Progress>(command.name);
    }
}

void Console::waitFor(const std::string& what, milliseconds limit) {
    if (progress) progress->waitFor(what, limit);
}

void Console::showSteps() {
    if (!progress) return;
    records.listen(
        [this](const LogRecord& record) { progress->step(escaped(record.getMessage())); });
}

void Console::end(const Invocation& invocation, const Result& result, milliseconds duration) {
    records.listen({});
    progress.reset();
    if (json) {
        printJson(invocation, result, duration);
        return;
    }
    if (!result.text.empty()) std::fprintf(Streams::output(), "%s\n", result.text.c_str());
    std::fflush(Streams::output());
    if (!result.problem.empty()) {
        std::fprintf(Streams::errors(), "corvanectl: %s%s%s\n",
                     invocation.command == nullptr ? "" : invocation.command->name,
                     invocation.command == nullptr ? "" : ": ", result.problem.c_str());
    }
    const LoggedErrors errors = records.errors();
    const std::size_t shown = std::min(errors.first.size(), errorsShown);
    for (std::size_t i = 0; i < shown; ++i) {
        const LogRecord& record = errors.first[i];
        std::fprintf(Streams::errors(), "  logged: %s (%s:%d)\n",
                     escaped(record.getMessage()).c_str(), fileOf(record).c_str(),
                     record.getLine());
    }
    if (errors.total > shown) {
        std::fprintf(Streams::errors(), "  logged: %zu more; --log-file keeps them all\n",
                     errors.total - shown);
    }
}

void Console::report(const Failure& failure) {
    records.restart();
    end({}, {failure.status, "", failure.what(), nullptr}, milliseconds(0));
}

void Console::print(const std::string& text, const Json& data) {
    end({}, {ExitStatus::success, text, "", data}, milliseconds(0));
}

void Console::printJson(const Invocation& invocation, const Result& result, milliseconds duration) {
    const LoggedErrors errors = records.errors();
    Json object;
    object["command"] = nullptr;
    if (invocation.command != nullptr) object["command"] = invocation.command->name;
    object["arguments"] = invocation.arguments;
    object["status"] = static_cast<int>(result.status);
    object["outcome"] =
        std::find_if(exitStatusRows.begin(), exitStatusRows.end(), [&](const ExitStatusRow& row) {
            return row.status == result.status;
        })->name;
    object["problem"] = nullptr;
    if (!result.problem.empty()) object["problem"] = result.problem;
    object["result"] = result.data;
    object["duration_ms"] = duration.count();
    object["errors"] = Json::array();
    for (const LogRecord& record : errors.first) object["errors"].push_back(toJson(record));
    object["errors_total"] = errors.total;
    // In ASCII; bytes that are no UTF-8 become U+FFFD.
    const std::string line = object.dump(-1, ' ', true, Json::error_handler_t::replace);
    std::fprintf(Streams::output(), "%s\n", line.c_str());
    std::fflush(Streams::output());
}

}  // namespace corvanectl
