#include "Session.h"

#include <cstdio>
#include <cstdlib>

namespace corvanectl {

using std::chrono::milliseconds;

Session::Session(const Options& chosen, Console& userConsole, LineSource* input)
    : options(chosen),
      console(userConsole),
      host(console.records, input,
           [this](const std::string& what, milliseconds limit) { console.waitFor(what, limit); }) {}

ExitStatus Session::run(const Invocation& invocation) {
    using std::chrono::steady_clock;
    Interrupt::restart();
    console.begin(*invocation.command);
    const auto start = steady_clock::now();
    const Result result = runQuietly(invocation);
    console.end(invocation, result,
                std::chrono::duration_cast<milliseconds>(steady_clock::now() - start));
    const bool left = Interrupt::happened() && result.status == ExitStatus::success;
    const ExitStatus ended = left ? ExitStatus::interrupted : result.status;
    remember(ended);
    return ended;
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
    console.report(failure);
    remember(failure.status);
    return failure.status;
}

bool Session::goesOn(ExitStatus last) const {
    if (stopping || last == ExitStatus::interrupted) return false;
    return last == ExitStatus::success || options.keepGoing;
}

void Session::leave(ExitStatus status) {
    if (options.tearDown && host.managerIsUp()) host.manager().setBluetoothServices(false);
    if (std::fflush(Streams::output()) != 0 || std::ferror(Streams::output()) != 0) {
        std::fputs("corvanectl: standard output could not be written\n", Streams::errors());
        if (status == ExitStatus::success) status = ExitStatus::unexpected;
    }
    std::quick_exit(static_cast<int>(status));
}

}  // namespace corvanectl
