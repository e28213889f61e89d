#include "Edges.h"

#include "LogAppender.h"

#include <glib.h>
#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <utility>

namespace corvane::test {

Edges& edges() {
    static auto* const instance = new Edges;
    return *instance;
}

void Edges::note(Kind kind, std::string text) {
    const std::lock_guard lock(mutex);
    noted.push_back({g_get_monotonic_time(), kind, std::move(text)});
}

void Edges::note(LogRecord record) {
    note(Kind::LOG, record.level + " " + record.message);
    const std::lock_guard lock(mutex);
    records.push_back(std::move(record));
}

std::vector<Event> Edges::events() const {
    const std::lock_guard lock(mutex);
    return noted;
}

std::vector<LogRecord> Edges::log() const {
    const std::lock_guard lock(mutex);
    return records;
}

void Edges::forget() {
    const std::lock_guard lock(mutex);
    noted.clear();
    records.clear();
}

namespace {

class CaptureAppender : public log4cplus::Appender {
public:
    ~CaptureAppender() override { destructorImpl(); }
    void close() override { closed = true; }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        const std::string& path = event.getFile();
        edges().note({log4cplus::getLogLevelManager().toString(event.getLogLevel()),
                      event.getMessage(), path.substr(path.rfind('/') + 1), event.getFunction()});
    }
};

}  // namespace

void captureLog() {
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.removeAllAppenders();
    logger.setAdditivity(false);
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    logger.addAppender(log4cplus::SharedAppenderPtr(new CaptureAppender));
}

}  // namespace corvane::test
