#include "LogAppender.h"

#include "PrintableText.h"

#include <log4cplus/appender.h>
#include <log4cplus/configurator.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/spi/factory.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace {

constexpr char configurationVariable[] = "CORVANE_LOG_CONFIG";
constexpr char loggerName[] = "corvane";
constexpr char recordPattern[] = "%D{%Y-%m-%d %H:%M:%S.%q} %-5p %b:%L %M: %m%n";

/// A pattern layout that escapes what could break a line or steer a terminal: messages contain
/// names that strangers chose. Properties files use it as corvane::PrintableLayout, with a
/// ConversionPattern like log4cplus::PatternLayout.
class PrintableLayout : public log4cplus::PatternLayout {
public:
    explicit PrintableLayout(const log4cplus::tstring& recordForm)
        : log4cplus::PatternLayout(recordForm) {}
    explicit PrintableLayout(const log4cplus::helpers::Properties& properties)
        : log4cplus::PatternLayout(properties) {}

    void formatAndAppend(log4cplus::tostream& output,
                         const log4cplus::spi::InternalLoggingEvent& event) override {
        const log4cplus::spi::InternalLoggingEvent printable(
            event.getLoggerName(), event.getLogLevel(), event.getNDC(), event.getMDCCopy(),
            corvane::printableText(event.getMessage()), event.getThread(), event.getThread2(),
            event.getTimestamp(), event.getFile(), event.getLine(), event.getFunction());
        log4cplus::PatternLayout::formatAndAppend(output, printable);
    }
};

/// Writes to standard error. log4cplus's own appender uses std::cerr, which stays silent after a
/// signal has interrupted one of its writes.
class Console : public log4cplus::Appender {
public:
    ~Console() override { destructorImpl(); }
    void close() override { closed = true; }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        std::string_view left = formatEvent(event);
        while (!left.empty()) {
            const ssize_t written = ::write(STDERR_FILENO, left.data(), left.size());
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) return;
            left.remove_prefix(static_cast<std::size_t>(written));
        }
    }
};

/// Applies the properties to the hierarchy.
/// @return whether there is an appender now
bool configure(const log4cplus::helpers::Properties& properties, log4cplus::Hierarchy& hierarchy) {
    log4cplus::PropertyConfigurator(properties, hierarchy).configure();
    auto loggers = hierarchy.getCurrentLoggers();
    loggers.push_back(hierarchy.getRoot());
    return std::any_of(loggers.begin(), loggers.end(),
                       [](log4cplus::Logger& logger) { return !logger.getAllAppenders().empty(); });
}

bool load(const log4cplus::Logger& logger, const std::string& propertiesFile) {
    std::ifstream file(propertiesFile);
    const int error = errno;
    // A folder can be opened, but not read.
    if (!file.is_open() || (file.peek(), file.bad())) {
        LOG4CPLUS_ERROR(logger, "Cannot read the log configuration "
                                    << propertiesFile << ": "
                                    << (file.is_open() ? "it is not a readable file"
                                                       : std::generic_category().message(error))
                                    << "; logging stays as it is");
        return false;
    }
    file.clear();
    const log4cplus::helpers::Properties properties(file);
    // Try it on a hierarchy that nobody uses: a broken file must not silence the process.
    log4cplus::Hierarchy trial;
    const bool usable = configure(properties, trial);
    trial.shutdown();
    if (!usable) {
        LOG4CPLUS_ERROR(logger, "The log configuration "
                                    << propertiesFile
                                    << " gives no logger an appender, for instance by "
                                       "log4cplus.rootLogger=INFO, NAME; logging stays as it is");
        return false;
    }
    log4cplus::Hierarchy& used = log4cplus::Logger::getDefaultHierarchy();
    used.resetConfiguration();
    configure(properties, used);
    return true;
}

log4cplus::Logger setUp() {
    log4cplus::initialize();
    log4cplus::spi::getLayoutFactoryRegistry().put(
        std::make_unique<
            log4cplus::spi::FactoryTempl<PrintableLayout, log4cplus::spi::LayoutFactory>>(
            "corvane::PrintableLayout"));

    const log4cplus::SharedAppenderPtr console(new Console);
    console->setLayout(std::make_unique<PrintableLayout>(recordPattern));
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.addAppender(console);
    root.setLogLevel(log4cplus::INFO_LOG_LEVEL);

    log4cplus::Logger logger = log4cplus::Logger::getInstance(loggerName);
    const char* const propertiesFile = std::getenv(configurationVariable);
    if (propertiesFile != nullptr && *propertiesFile != '\0') load(logger, propertiesFile);
    return logger;
}

}  // namespace

const log4cplus::Logger& LogAppender::getLogger() {
    // Never freed: static objects log during their destruction.
    static const log4cplus::Logger& logger = *new log4cplus::Logger(setUp());
    return logger;
}

bool LogAppender::loadConfiguration(const std::string& propertiesFile) {
    return load(getLogger(), propertiesFile);
}
