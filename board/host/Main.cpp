// Boots the virtual board and the machine with the remote devices, connects their serial lines,
// runs one command on the board and stops both machines.

#include "Machine.h"
#include "Poller.h"
#include "RadioRelay.h"
#include "SecureShell.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/prctl.h>
#include <sys/signalfd.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The exit status for a failure of the board itself; commands rarely return it.
constexpr int boardFailed = 125;
constexpr int timedOut = 124;

struct Options {
    std::string kernel, boardTree, remoteTree, initramfs, key, folder;
    int wiring = 1;
    bool terminal = false;
    bool quiet = false;
    unsigned timeoutSeconds = 0;
    std::vector<std::string> fetch;
    std::vector<std::string> command;
};

class Session {
public:
    explicit Session(const Options& options)
        : options_(options),
          ssh_(options.key, options.folder + "/ssh.log"),
          remote_("remote", {options.kernel, options.remoteTree, options.initramfs}, options.folder,
                  "corvane.role=remote corvane.wiring=1 " + date(), "none"),
          board_(
              "board", {options.kernel, options.boardTree, options.initramfs}, options.folder,
              "corvane.role=board corvane.wiring=" + std::to_string(options.wiring) + " " + date(),
              ssh_.card()),
          relay_(poller_, board_.radio.get(), remote_.radio.get(), board_.monitor.get(),
                 options.wiring) {
        poller_.add(board_.commands.get(), [this](const std::uint8_t* data, std::size_t size) {
            commandText_.append(reinterpret_cast<const char*>(data), size);
            std::size_t end = 0;
            while ((end = commandText_.find('\n')) != std::string::npos) {
                obey(commandText_.substr(0, end + 1));
                commandText_.erase(0, end + 1);
            }
        });
        poller_.add(remote_.commands.get(), [this](const std::uint8_t* data, std::size_t size) {
            poller_.send(board_.commands.get(), data, size);
        });
        watchSignals();
    }

    int run() {
        started_ = Clock::now();
        poller_.setTick(20ms, [this] { tick(); });
        poller_.run();
        return *outcome_;
    }

private:
    static std::string date() { return "corvane.date=" + std::to_string(std::time(nullptr)); }

    /// Handles a command from the board: for its own radio, which is here, or for the remote
    /// devices.
    void obey(const std::string& line) {
        constexpr std::string_view toRadio = "radio ";
        if (line.compare(0, toRadio.size(), toRadio) != 0) {
            poller_.send(remote_.commands.get(), line);
            return;
        }
        const std::string fault = line.substr(toRadio.size(), line.size() - toRadio.size() - 1);
        poller_.send(board_.commands.get(),
                     std::string(relay_.misbehave(fault)
                                     ? "ok\n"
                                     : "error: the radio can: normal, silent, refuse, reset, "
                                       "vanish\n"));
    }

    void watchSignals() {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&set, number);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        signals_ = board::UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
        poller_.add(signals_.get(), [this](const std::uint8_t* data, std::size_t size) {
            for (; size >= sizeof(signalfd_siginfo); size -= sizeof(signalfd_siginfo)) {
                onSignal(
                    static_cast<int>(reinterpret_cast<const signalfd_siginfo*>(data)->ssi_signo));
                data += sizeof(signalfd_siginfo);
            }
        });
    }

    void onSignal(int number) {
        if (number == SIGCHLD) {
            const std::optional<int> status = ssh_.status();
            if (status) onSshEnded(*status);
        } else if (number == SIGINT && began_ && !outcome_) {
            endCommand(128 + number);  // a second one stops the board
        } else {
            end(128 + number);
        }
    }

    void tick() {
        if (ticks_++ % 50 == 0) {
            board_.check();
            remote_.check();
        }
        relay_.poll();
        if (!remoteWasUp_ && remote_.isUp()) {
            remoteWasUp_ = true;
            relay_.remoteIsReady();
        }
        const auto waited = Clock::now() - started_;
        if (!began_ && remoteWasUp_ && board_.isUp()) {
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(waited).count();
            if (!options_.quiet) {
                std::fprintf(stderr, "board: up after %.1f s, wiring %d\r\n",
                             static_cast<double>(ms) / 1000.0, options_.wiring);
            }
            began_ = Clock::now();
            ssh_.start(options_.command, options_.terminal);
        }
        if (!began_ && waited > 30min) {
            throw std::runtime_error("the remote devices' console said:\n" + remote_.lastWords() +
                                     "the board's console said:\n" + board_.lastWords() +
                                     "the board did not come up within 30 minutes");
        }
        if (began_ && !outcome_ && options_.timeoutSeconds != 0 &&
            Clock::now() - *began_ > std::chrono::seconds(options_.timeoutSeconds)) {
            std::fprintf(stderr, "board: the command ran longer than %u s and was ended\r\n",
                         options_.timeoutSeconds);
            endCommand(timedOut);
        }
    }

    void endCommand(int outcome) {
        outcome_ = outcome;
        ssh_.end();
    }

    /// Copies the requested files from the board into the folder, one after the other, then ends
    /// with the status of the command.
    void onSshEnded(int status) {
        board_.check();
        if (!outcome_) outcome_ = status;
        if (fetched_ == options_.fetch.size()) {
            end(*outcome_);
            return;
        }
        const std::string path = options_.fetch[fetched_++];
        ssh_.start({"cat", path}, false, options_.folder + "/" + path.substr(path.rfind('/') + 1));
    }

    void end(int status) {
        outcome_ = status;
        poller_.stop();
    }

    const Options& options_;
    board::SecureShell ssh_;
    board::Machine remote_;
    board::Machine board_;
    board::Poller poller_;
    board::RadioRelay relay_;
    board::UniqueFd signals_;
    std::string commandText_;  ///< of a line that is not complete yet
    Clock::time_point started_;
    std::optional<Clock::time_point> began_;  ///< the command
    unsigned ticks_ = 0;
    bool remoteWasUp_ = false;
    std::optional<int> outcome_;  ///< of the command
    std::size_t fetched_ = 0;
};

/// @return the exit status
int bootAndRun(int argc, char** argv) {
    Options options;
    CLI::App app{"Runs one command on the virtual board. script/board prepares what it needs."};
    app.add_option("--kernel", options.kernel)->required()->check(CLI::ExistingFile);
    app.add_option("--board-tree", options.boardTree, "device tree")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--remote-tree", options.remoteTree, "device tree")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--initramfs", options.initramfs)->required()->check(CLI::ExistingFile);
    app.add_option("--key", options.key, "private key that the board accepts")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--folder", options.folder, "for logs and fetched files")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--wiring", options.wiring, "radio wiring")->check(CLI::Range(0, 2));
    app.add_option("--timeout", options.timeoutSeconds, "seconds for the command, 0: no limit");
    app.add_option("--fetch", options.fetch, "file of the board to bring back")
        ->allow_extra_args(false);
    app.add_flag("--terminal", options.terminal, "give the command a terminal");
    app.add_flag("--quiet", options.quiet, "do not say when the board is up");
    app.add_option("command", options.command)->required();
    app.positionals_at_end();
    CLI11_PARSE(app, argc, argv);

    std::signal(SIGPIPE, SIG_IGN);
    // This program and the machines must end with the calling script, however it ends.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    return Session(options).run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return bootAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "board: %s\n", error.what());
        return boardFailed;
    }
}
