// Boots the virtual board and the machine with the remote devices, connects their serial lines,
// runs one command on the board and stops both machines.

#include "AgentClient.h"
#include "Machine.h"
#include "Poller.h"
#include "RadioRelay.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <termios.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The exit status for a failure of the board itself; commands rarely return it.
constexpr int boardFailed = 125;
constexpr int timedOut = 124;

struct Options {
    std::string kernel, boardTree, remoteTree, initramfs, folder;
    int wiring = 1;
    bool terminal = false;
    bool quiet = false;
    unsigned timeoutSeconds = 0;
    std::vector<std::string> fetch;
    std::vector<std::string> command;
};

/// Puts the caller's terminal into raw mode while it exists.
class RawTerminal {
public:
    RawTerminal() {
        if (tcgetattr(STDIN_FILENO, &saved_) != 0) {
            throw std::runtime_error("a shell on the board needs a terminal");
        }
        termios raw = saved_;
        cfmakeraw(&raw);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    ~RawTerminal() { tcsetattr(STDIN_FILENO, TCSANOW, &saved_); }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

private:
    termios saved_{};
};

void writeAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EAGAIN) {
            pollfd entry{fd, POLLOUT, 0};
            ::poll(&entry, 1, -1);
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return;  // the reader is gone; the command continues without it
        done += static_cast<std::size_t>(written);
    }
}

class Session {
public:
    explicit Session(const Options& options)
        : options_(options),
          remote_("remote", {options.kernel, options.remoteTree, options.initramfs}, options.folder,
                  "corvane.role=remote corvane.wiring=1 " + date()),
          board_(
              "board", {options.kernel, options.boardTree, options.initramfs}, options.folder,
              "corvane.role=board corvane.wiring=" + std::to_string(options.wiring) + " " + date()),
          relay_(poller_, board_.radio.get(), remote_.radio.get(), board_.monitor.get(),
                 options.wiring),
          boardAgent_(poller_, board_.agent.get()),
          remoteAgent_(poller_, remote_.agent.get()) {
        poller_.add(board_.commands.get(),
                    [this](const std::uint8_t* data, std::size_t size) {
                        commandText_.append(reinterpret_cast<const char*>(data), size);
                        std::size_t end = 0;
                        while ((end = commandText_.find('\n')) != std::string::npos) {
                            obey(commandText_.substr(0, end + 1));
                            commandText_.erase(0, end + 1);
                        }
                    },
                    {});
        poller_.add(remote_.commands.get(),
                    [this](const std::uint8_t* data, std::size_t size) {
                        poller_.send(board_.commands.get(), data, size);
                    },
                    {});
        watchSignals();
    }

    int run() {
        started_ = Clock::now();
        poller_.setTick(20ms, [this] { tick(); });
        poller_.run();
        terminal_.reset();
        return status_;
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
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH}) sigaddset(&set, number);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        signals_ = board::UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
        poller_.add(signals_.get(),
                    [this](const std::uint8_t* data, std::size_t size) {
                        for (; size >= sizeof(signalfd_siginfo); size -= sizeof(signalfd_siginfo)) {
                            onSignal(static_cast<int>(
                                reinterpret_cast<const signalfd_siginfo*>(data)->ssi_signo));
                            data += sizeof(signalfd_siginfo);
                        }
                    },
                    {});
    }

    void onSignal(int number) {
        if (number == SIGWINCH) {
            if (!options_.terminal || !commandRuns_) return;
            const winsize size = terminalSize();
            boardAgent_.resize(size.ws_row, size.ws_col);
        } else if (number == SIGINT && commandRuns_ && !interrupted_) {
            interrupted_ = true;  // the first one is the command's; a second one stops the board
            boardAgent_.signal(number);
        } else {
            end(128 + number);
        }
    }

    static winsize terminalSize() {
        winsize size{};
        if (ioctl(STDIN_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) {
            size.ws_row = 24;
            size.ws_col = 80;
        }
        return size;
    }

    void tick() {
        if (ticks_++ % 50 == 0) {
            board_.check();
            remote_.check();
        }
        relay_.poll();
        if (remoteAgent_.ready() && !remoteWasReady_) {
            remoteWasReady_ = true;
            relay_.remoteIsReady();
        }
        const auto waited = Clock::now() - started_;
        if (!begun_ && boardAgent_.ready() && remoteAgent_.ready()) {
            begun_ = true;
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(waited).count();
            if (!options_.quiet) {
                std::fprintf(stderr, "board: up after %.1f s, wiring %d\r\n",
                             static_cast<double>(ms) / 1000.0, options_.wiring);
            }
            begin();
        }
        if (!begun_ && waited > 30min) {
            throw std::runtime_error("the remote devices' console said:\n" + remote_.lastWords() +
                                     "the board's console said:\n" + board_.lastWords() +
                                     "the board did not come up within 30 minutes");
        }
        if (commandRuns_ && options_.timeoutSeconds != 0 &&
            Clock::now() - began_ > std::chrono::seconds(options_.timeoutSeconds)) {
            std::fprintf(stderr, "board: the command ran longer than %u s and was ended\r\n",
                         options_.timeoutSeconds);
            commandRuns_ = false;
            boardAgent_.signal(SIGKILL);
            collectFiles(timedOut);
        }
    }

    void begin() {
        began_ = Clock::now();
        board::RunRequest request;
        request.terminal = options_.terminal;
        request.arguments = options_.command;
        if (options_.terminal) {
            const winsize size = terminalSize();
            request.rows = size.ws_row;
            request.columns = size.ws_col;
            terminal_.emplace();
        }
        commandRuns_ = true;
        boardAgent_.run(
            request,
            [](board::FrameType stream, const std::string& bytes) {
                writeAll(stream == board::FrameType::Output ? STDOUT_FILENO : STDERR_FILENO, bytes);
            },
            [this](int status) {
                const bool inTime = commandRuns_;
                commandRuns_ = false;
                terminal_.reset();
                if (inTime) collectFiles(status);
            });
        poller_.addInput(
            STDIN_FILENO,
            [this](const std::uint8_t* data, std::size_t size) {
                if (commandRuns_) {
                    boardAgent_.input(std::string(reinterpret_cast<const char*>(data), size));
                }
            },
            [this] {
                if (commandRuns_) boardAgent_.endInput();
            });
    }

    /// Copies the requested files from the board into the folder, then ends with the status.
    void collectFiles(int status) {
        if (fetched_ == options_.fetch.size()) {
            end(status);
            return;
        }
        const std::string path = options_.fetch[fetched_++];
        const std::string name = options_.folder + "/" + path.substr(path.rfind('/') + 1);
        auto file = std::make_shared<std::ofstream>(name, std::ios::binary);
        board::RunRequest request;
        request.arguments = {"cat", path};
        boardAgent_.run(
            request,
            [file](board::FrameType stream, const std::string& bytes) {
                if (stream == board::FrameType::Output) *file << bytes;
            },
            [this, status](int) { collectFiles(status); });
    }

    void end(int status) {
        status_ = status;
        poller_.stop();
    }

    const Options& options_;
    board::Machine remote_;
    board::Machine board_;
    board::Poller poller_;
    board::RadioRelay relay_;
    board::AgentClient boardAgent_;
    board::AgentClient remoteAgent_;
    board::UniqueFd signals_;
    std::string commandText_;  ///< of a line that is not complete yet
    std::optional<RawTerminal> terminal_;
    Clock::time_point started_, began_;
    unsigned ticks_ = 0;
    bool remoteWasReady_ = false;
    bool begun_ = false;
    bool commandRuns_ = false;
    bool interrupted_ = false;
    std::size_t fetched_ = 0;
    int status_ = boardFailed;
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
