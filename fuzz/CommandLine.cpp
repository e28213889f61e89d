// Input: corvanectl's command line, words separated by zero bytes; behind a zero byte and a line
// end, the lines of its standard input. Options, words and lines are read as the program does, and
// the commands run: on the machine of Machine.h, with a BlueZ that answers from memory.

#include "Bluez.h"
#include "Edges.h"
#include "HostileTexts.h"
#include "LogAppender.h"
#include "Machine.h"
#include "Parse.h"
#include "Shell.h"
#include "Text.h"

#include <array>
#include <iostream>
#include <sstream>
#include <utility>

#include <sys/mman.h>

// The program's own reading of its options and words.
#define main corvanectlMain
#include "main.cpp"  // NOLINT(bugprone-suspicious-include)
#undef main

using corvane::fuzz::require;
using corvane::test::edges;
using corvane::test::Kind;

namespace {

/// A file in memory, emptied by taking its content.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& content = "")
        : fd(memfd_create("corvane", MFD_CLOEXEC)) {
        require(
            fd != -1 &&
                write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
                lseek(fd, 0, SEEK_SET) == 0,
            "there is memory");
    }
    ~MemoryFile() { close(fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int descriptor() const { return fd; }

    std::string take() {
        std::string content(static_cast<std::size_t>(lseek(fd, 0, SEEK_END)), '\0');
        require(
            pread(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()) &&
                ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0,
            "a file in memory can be read");
        return content;
    }

private:
    const int fd;
};

/// Both streams that corvanectl writes to, and the terminal that is none.
class Streams {
public:
    Streams() {
        const int kept = dup(STDOUT_FILENO);
        dup2(output.descriptor(), STDOUT_FILENO);
        Output::claim();
        dup2(kept, STDOUT_FILENO);
        close(kept);
        captured = fdopen(dup(errors.descriptor()), "w");
        first = captured;
        second = captured;
        std::cout.rdbuf(help.rdbuf());
        std::cerr.rdbuf(help.rdbuf());
    }

    std::string takeOutput() {
        std::fflush(Output::file());
        return output.take();
    }
    std::string takeErrors() {
        std::fflush(captured);
        help.str("");
        return errors.take();
    }

    /// Changes the C library's streams for ours, and back.
    void exchange() {
        std::swap(stdout, first);
        std::swap(stderr, second);
    }

private:
    MemoryFile output;
    MemoryFile errors;
    std::ostringstream help;
    std::FILE* captured = nullptr;
    std::FILE* first = nullptr;
    std::FILE* second = nullptr;
};

Streams* streams = nullptr;

/// Whether nothing in the text can steer a terminal, mislead its reader or break a line that is
/// not meant to end.
bool isPrintable(const std::string& text) {
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
        return false;
    }
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar c = g_utf8_get_char(at);
        if (c == '\n') continue;
        if (c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x200B && c <= 0x200F) ||
            (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069)) {
            return false;
        }
    }
    return text.find('\0') == std::string::npos;
}

bool isJson(const std::string& output) {
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (!Json::accept(line)) return false;
        for (const char c : line) {
            if (c < 0x20 || c > 0x7E) return false;
        }
    }
    return true;
}

/// What goes to a shell is the library's own but for the pattern of watch-log, which stays within
/// its quotes.
void requireSafeCommands() {
    const std::string start = "popen r diff /var/log/messages /tmp/messages_ref | grep '";
    for (const auto& event : edges().events()) {
        if (event.kind != Kind::SHELL || event.text.rfind("popen", 0) != 0) continue;
        require(event.text.rfind(start, 0) == 0 &&
                    event.text.find('\'', start.size()) == event.text.size() - 1,
                "a pattern stays within its quotes");
    }
}

/// Anything can be shown so that it can be typed again.
void requireTypable(const std::string& text) {
    require(isPrintable(escaped(text)), "what is escaped prints");
    const auto words = splitWords(inQuotes(text));
    require(words.size() == 1 && words.front() == text, "what is in quotes reads as it was");
}

void requireCompletions(Session& session, const std::string& line) {
    const Completion completion = complete(session, line);
    require(completion.wordStart <= line.size(), "the last word lies in the line");
    for (const std::string& candidate : completion.candidates) {
        require(splitWords(candidate).size() == 1, "a completion is one word");
    }
}

std::vector<std::string> wordsOf(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, '\0');) words.push_back(word);
    return words;
}

/// corvanectl, from its command line to its exit status.
void runProgram(const std::vector<std::string>& arguments, const std::string& input) {
    CLI::App app{description, "corvanectl"};
    Start start;
    declareOptions(app, start);
    std::vector<const char*> argv{"corvanectl"};
    for (const std::string& word : arguments) argv.push_back(word.c_str());
    if (parse(app, static_cast<int>(argv.size()), argv.data())) {
        require(isPrintable(streams->takeErrors()), "what is said of options prints");
        return;
    }
    if (!start.generate.empty()) {
        print(app, start.generate);
        streams->takeErrors();
        return;
    }
    // Any file could be named there.
    start.options.log.file.clear();
    start.options.log.config.clear();

    const MemoryFile file(input);
    LineSource lines(file.descriptor());
    const std::vector<std::string> words = app.remaining();
    Session session(start.options, words.empty() ? &lines : nullptr);
    if (words.empty()) {
        runLines(session, lines);
        requireCompletions(session, input.substr(0, input.find('\n')));
    } else {
        runArguments(session, words);
    }
    const std::string output = streams->takeOutput();
    require(start.options.json ? isJson(output) : isPrintable(output), "what is said prints");
    require(isPrintable(streams->takeErrors()), "what is complained of prints");
}

/// Devices with every hostile name that the bus lets through, in every list.
corvane::fuzz::Message hostileDevices() {
    std::vector<std::string> names{"Phone", "Living room", "Keyboard"};
    for (const auto& row : corvane::test::hostileTexts("names")) {
        if (g_utf8_validate(row.second.data(), static_cast<gssize>(row.second.size()), nullptr) !=
            FALSE) {
            names.push_back(row.second);
        }
    }
    const auto boolean = [] { return corvane::fuzz::own(g_variant_new_boolean(TRUE)); };
    const auto text = [](const std::string& value) {
        return corvane::fuzz::own(g_variant_new_string(value.c_str()));
    };
    constexpr std::array<guint32, 3> classes{{0x5A020C, 0x240414, 0x000540}};
    corvane::fuzz::Reply reply;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string address = "00:11:22:33:44:" + std::to_string(10 + i);
        const auto deviceClass = corvane::fuzz::own(g_variant_new_uint32(classes[i % 3]));
        reply.push_back({"/org/bluez/hci0/dev_" + std::to_string(i),
                         {{"org.bluez.Device1",
                           {{"Address", text(address)},
                            {"Name", text(names[i])},
                            {"Class", deviceClass},
                            {"Modalias", text("bluetooth:v004Cp0269d0001")},
                            {"Paired", boolean()},
                            {"Connected", boolean()}}}}});
    }
    const auto bytes = wireOf(reply, G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN);
    return corvane::fuzz::messageOf(bytes.data(), bytes.size());
}

}  // namespace

extern "C" int isatty(int /*descriptor*/) noexcept { return 0; }

/// No request runs its time: each is cancelled before it starts, and answers at once.
bool BluetoothManager::makeRequest(std::shared_ptr<BluetoothRequest> request) {
    request->cancelRequest();
    request->executeRequest();
    return true;
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    chooseLocale();
    corvane::fuzz::manager();
    corvane::fuzz::bluezAnswers(hostileDevices());
    static Streams both;
    streams = &both;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t mostWatches = 64;
    const std::string all(reinterpret_cast<const char*>(data), size);
    requireTypable(all);
    const std::size_t split = all.compare(0, 1, "\n") == 0 ? 0 : all.find(std::string("\0\n", 2));
    const std::string words = all.substr(0, split);
    const std::string input =
        split == std::string::npos ? "" : all.substr(all.find('\n', split) + 1);

    LogAppender::getLogger();
    edges().flagFile = "0";
    // The system log has what is waited for; more waits than these would take their time.
    edges().pipes.assign(mostWatches, "found\n");
    streams->exchange();
    runProgram(wordsOf(words), input);
    streams->exchange();
    log4cplus::Logger(LogAppender::getLogger()).removeAllAppenders();
    requireSafeCommands();
    edges().forget();
    return 0;
}
