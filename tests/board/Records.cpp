#include "Records.h"

#include "LogAppender.h"

#include <log4cplus/spi/loggingevent.h>

#include <mutex>
#include <regex>
#include <sstream>

class Records::Appender : public log4cplus::Appender {
public:
    ~Appender() override { destructorImpl(); }
    void close() override { closed = true; }

    std::string text() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
    void clear() {
        const std::lock_guard<std::mutex> lock(mutex);
        lines.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        const std::lock_guard<std::mutex> lock(mutex);
        lines += log4cplus::getLogLevelManager().toString(event.getLogLevel()) + " " +
                 event.getMessage() + "\n";
    }

private:
    mutable std::mutex mutex;
    std::string lines;
};

Records::Records() : appender(new Appender), owner(appender) {
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.addAppender(owner);
    logger.setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
}

Records::~Records() {
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.removeAppender(owner);
}

std::string Records::all() const { return appender->text(); }

std::string Records::errors() const {
    std::string errors;
    std::istringstream lines(all());
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("ERROR ", 0) == 0) errors += line + "\n";
    }
    return errors;
}

std::string Records::faults() const {
    static const std::regex busy(
        "ERROR bluezAdapterSetProperty Pairable failed : GDBus.Error:org.bluez.Error.Busy[^\n]*\n"
        "ERROR Not able to set Pairable property\n"
        "(ERROR setBluetoothComponents : failed to configure pairable properties\n)?");
    return std::regex_replace(errors(), busy, "");
}

bool Records::has(const std::string& line) const {
    return ("\n" + all()).find("\n" + line + "\n") != std::string::npos;
}

void Records::clear() { appender->clear(); }
