#include "Session.h"

#include "Interrupt.h"
#include "Output.h"
#include "Progress.h"
#include "Text.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace corvanectl {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds redrawInterval{200};
constexpr std::size_t errorsShown = 5;

/// Carries the answer from the request's thread to ours, which may be gone by then.
class AnswerBox {
public:
    AnswerBox() : event(eventfd(0, EFD_CLOEXEC)) {
        if (event == -1) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    ~AnswerBox() { close(event); }
    AnswerBox(const AnswerBox&) = delete;
    AnswerBox& operator=(const AnswerBox&) = delete;

    void put(BluetoothRequestAnswers value) {
        answer = value;
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(event, &one, sizeof one);
    }
    int descriptor() const { return event; }
    BluetoothRequestAnswers get() const { return answer; }

private:
    const int event;
    std::atomic<BluetoothRequestAnswers> answer{REQUEST_FAILED};
};

/// Puts the calling thread before all ordinary ones: a scan keeps a processor busy, and a Ctrl-C
/// has to get through all the same. It sleeps nearly all the time. Without the permission nothing
/// changes.
class FirstInLine {
public:
    FirstInLine() { schedule(SCHED_RR | SCHED_RESET_ON_FORK, 1); }
    ~FirstInLine() { schedule(SCHED_OTHER, 0); }
    FirstInLine(const FirstInLine&) = delete;
    FirstInLine& operator=(const FirstInLine&) = delete;

private:
    static void schedule(int policy, int priority) {
        sched_param parameters{};
        parameters.sched_priority = priority;
        sched_setscheduler(0, policy, &parameters);
    }
};

/// Unlike the others, a request that has answered may count as running a moment longer, and the
/// next one would be refused.
void awaitEnd(BluetoothRequest& request) {
    constexpr milliseconds pause{1};
    while (request.isStillRunning()) std::this_thread::sleep_for(pause);
}

}  // namespace

Session::Session(Options chosen, LineSource* input)
    : options(std::move(chosen)), lines(input), records(new LogRecords) {
    setUpLogging(options.log, log4cplus::SharedAppenderPtr(records.get()));
}

bool Session::showsProgress() const { return !options.json && isatty(STDERR_FILENO) == 1; }

ExitStatus Session::run(const Invocation& invocation) {
    Interrupt::restart();
    records->restart({});
    const auto start = steady_clock::now();
    const Result result = runQuietly(invocation);
    const auto duration = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
    print(invocation, result, duration);
    const bool left = Interrupt::happened() && result.status == ExitStatus::success;
    const ExitStatus ended = left ? ExitStatus::interrupted : result.status;
    remember(ended);
    return ended;
}

Result Session::runQuietly(const Invocation& invocation) {
    try {
        return invocation.command->run(*this, invocation);
    } catch (const Failure& failure) {
        Result result;
        result.status = failure.status;
        result.problem = failure.what();
        return result;
    } catch (const std::exception& error) {
        Result result;
        result.status = ExitStatus::unexpected;
        result.problem = std::string("unexpected error: ") + error.what();
        return result;
    }
}

ExitStatus Session::report(const Failure& failure) {
    if (options.json) {
        const Json object{{"command", nullptr},
                          {"status", static_cast<int>(failure.status)},
                          {"outcome", nameOf(failure.status)},
                          {"problem", failure.what()}};
        std::fprintf(Output::file(), "%s\n", toLine(object).c_str());
        std::fflush(Output::file());
    } else {
        std::fprintf(stderr, "corvanectl: %s\n", failure.what());
    }
    remember(failure.status);
    return failure.status;
}

void Session::remember(ExitStatus status) {
    if (firstFailure == ExitStatus::success) firstFailure = status;
}

bool Session::goesOn(ExitStatus last) const {
    if (stopping || last == ExitStatus::interrupted) return false;
    return last == ExitStatus::success || options.keepGoing;
}

void Session::print(const Invocation& invocation, const Result& result, milliseconds duration) {
    const LoggedErrors errors = records->errors();
    if (options.json) {
        Json object{{"command", invocation.command->name}};
        object["arguments"] = invocation.arguments;
        object["status"] = static_cast<int>(result.status);
        object["outcome"] = nameOf(result.status);
        if (!result.problem.empty()) object["problem"] = result.problem;
        object["result"] = result.data;
        object["duration_ms"] = duration.count();
        object["errors"] = Json::array();
        for (const LogRecord& record : errors.first) object["errors"].push_back(toJson(record));
        object["errors_total"] = errors.total;
        std::fprintf(Output::file(), "%s\n", toLine(object).c_str());
        std::fflush(Output::file());
        return;
    }
    if (!result.text.empty()) std::fprintf(Output::file(), "%s\n", result.text.c_str());
    std::fflush(Output::file());
    if (!result.problem.empty()) {
        std::fprintf(stderr, "corvanectl: %s: %s\n", invocation.command->name,
                     result.problem.c_str());
    }
    const std::size_t shown = std::min(errors.first.size(), errorsShown);
    for (std::size_t i = 0; i < shown; ++i) {
        const LogRecord& record = errors.first[i];
        std::fprintf(stderr, "  logged: %s (%s:%d)\n", escaped(record.message).c_str(),
                     record.file.c_str(), record.line);
    }
    if (errors.total > shown) {
        std::fprintf(stderr, "  logged: %zu more; --log-file keeps them all\n",
                     errors.total - shown);
    }
}

void Session::leave(ExitStatus status) {
    if (options.tearDown && constructed) manager().setBluetoothServices(false);
    const bool written = std::fflush(Output::file()) == 0 && std::ferror(Output::file()) == 0;
    if (!written) {
        std::fputs("corvanectl: standard output could not be written\n", stderr);
        if (status == ExitStatus::success) status = ExitStatus::unexpected;
    }
    std::quick_exit(static_cast<int>(status));
}

sdbus::IConnection& Session::bus() {
    if (!connection) {
        try {
            connection = sdbus::createSystemBusConnection();
        } catch (const sdbus::Error& error) {
            throw Failure(ExitStatus::noBus, std::string("no system bus: ") + error.what() +
                                                 "; start dbus-daemon, and see the address in "
                                                 "DBUS_SYSTEM_BUS_ADDRESS where it is set");
        }
    }
    return *connection;
}

const eepromXML& Session::identity() {
    if (!board) {
        bus();
        const std::string text = hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo();
        if (text.empty()) {
            throw Failure(ExitStatus::noIdentity,
                          "no board identity: org.corvane.Hardware does not answer on the system "
                          "bus, and without it the wrong lines could be driven; start the hardware "
                          "service");
        }
        eepromXML parsed(text);
        if (parsed.GetModelType() == MODEL_UNKNOWN) {
            throw Failure(ExitStatus::noIdentity,
                          "the board identity from org.corvane.Hardware names no model, and "
                          "without it the wrong lines could be driven; correct the identity: " +
                              inQuotes(text.substr(0, 200)));
        }
        board.emplace(std::move(parsed));
    }
    return *board;
}

BluetoothManager& Session::manager() {
    if (!constructed) {
        identity();
        try {
            BluetoothManager::getInstance();
        } catch (const sdbus::Error& error) {
            throw Failure(ExitStatus::noBus, std::string("no system bus: ") + error.what());
        }
        constructed = true;
    }
    return BluetoothManager::getInstance();
}

hwcommon::DBusBluetoothHidProxy* Session::hid() {
    if (!hidProxy) hidProxy.emplace(bus());
    return &*hidProxy;
}

bool Session::isOnTheBus(const std::string& busName) {
    return hwcommon::DBusProxy(bus()).waitUntilDBusNameExist(busName, 0);
}

bool Session::setting() {
    // The manager lets the exceptions of the number conversion pass.
    try {
        return manager().getEnabled();
    } catch (const std::logic_error& error) {
        throw Failure(ExitStatus::badSetting,
                      std::string("the flag file /tmp/bluetoothEnabled holds no number (") +
                          error.what() + "); remove it, then switch on or off anew");
    }
}

void Session::refresh() {
    BluetoothManager& source = manager();
    const std::size_t before = errors().total;
    if (!source.scanDevicesInfo() || errors().total > before) {
        throw Failure(ExitStatus::refused,
                      "BlueZ did not give its devices; is Bluetooth on? See status");
    }
}

BluetoothConnectionInfo Session::device(BluetoothDeviceListType type, const std::string& name) {
    refresh();
    if (const auto info = manager().getDeviceInfo(type, name)) return *info;
    std::string problem = "no device named " + inQuotes(name) + " among the " +
                          std::to_string(manager().getBluetoothDeviceListSize(type));
    switch (type) {
        case ALL_DEVICES:
            problem += " known ones; scan finds devices, devices lists their names";
            break;
        case PAIRED_DEVICES:
            problem += " paired ones; pair it first, devices paired lists their names";
            break;
        case CONNECTED_DEVICES:
            problem += " connected ones; devices connected lists their names";
            break;
    }
    throw Failure(ExitStatus::noDevice, problem);
}

BluetoothRequestAnswers Session::perform(const RequestMaker& make, const std::string& label,
                                         milliseconds expected) {
    const auto box = std::make_shared<AnswerBox>();
    const auto request = make([box](BluetoothRequestAnswers answer) { box->put(answer); });
    if (!manager().makeRequest(request)) {
        throw Failure(ExitStatus::busy,
                      "another request is still running; wait for its end or cancel it");
    }
    const FirstInLine first;
    std::optional<Progress> progress;
    if (showsProgress()) progress.emplace(label, expected);
    bool cancelled = false;
    while (true) {
        // The line may have been read ahead, which no poll would tell.
        if (!cancelled &&
            (Interrupt::happened() || (lines != nullptr && lines->takeIf("cancel")))) {
            request->cancelRequest();
            cancelled = true;
            if (progress) progress->change("Cancelling, Ctrl-C again leaves");
        }
        if (progress) progress->draw();
        pollfd waits[] = {{box->descriptor(), POLLIN, 0},
                          {cancelled ? -1 : Interrupt::descriptor(), POLLIN, 0},
                          {lines == nullptr || cancelled ? -1 : lines->awaited(), POLLIN, 0}};
        poll(waits, 3, progress ? static_cast<int>(redrawInterval.count()) : -1);
        if ((waits[0].revents & POLLIN) != 0) break;
    }
    awaitEnd(*request);
    return box->get();
}

void Session::showSteps() {
    if (!showsProgress()) return;
    records->restart([](const LogRecord& record) {
        std::fprintf(stderr, "  %s\n", escaped(record.message).c_str());
    });
}

}  // namespace corvanectl
