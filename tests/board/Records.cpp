#include "Records.h"

#include "Board.h"
#include "LogAppender.h"

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <mutex>
#include <regex>
#include <utility>
#include <vector>

class Records::Appender : public log4cplus::Appender {
public:
    ~Appender() override { destructorImpl(); }

    void close() override { closed = true; }

    /// The records of one level, or of all with NOT_SET_LOG_LEVEL, one a line.
    std::string lines(log4cplus::LogLevel level) const {
        const std::lock_guard<std::mutex> lock(mutex);
        std::string text;
        for (const auto& record : records) {
            if (level != log4cplus::NOT_SET_LOG_LEVEL && record.first != level) continue;
            text +=
                log4cplus::getLogLevelManager().toString(record.first) + " " + record.second + "\n";
        }
        return text;
    }

    void clear() {
        const std::lock_guard<std::mutex> lock(mutex);
        records.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        const std::lock_guard<std::mutex> lock(mutex);
        records.emplace_back(event.getLogLevel(), event.getMessage());
    }

private:
    mutable std::mutex mutex;
    std::vector<std::pair<log4cplus::LogLevel, std::string>> records;
};

Records::Records() : appender(new Appender) {
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.addAppender(log4cplus::SharedAppenderPtr(appender));
    logger.setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
}

Records::~Records() {
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.removeAppender(log4cplus::SharedAppenderPtr(appender));
}

bool Records::has(log4cplus::LogLevel level, const std::string& message) const {
    const std::string line = log4cplus::getLogLevelManager().toString(level) + " " + message + "\n";
    return ("\n" + all()).find("\n" + line) != std::string::npos;
}

std::string Records::all() const { return appender->lines(log4cplus::NOT_SET_LOG_LEVEL); }

std::string Records::errors() const { return appender->lines(log4cplus::ERROR_LOG_LEVEL); }

std::string Records::faults() const {
    static const std::regex busy(
        "ERROR bluezAdapterSetProperty Pairable failed : GDBus.Error:org.bluez.Error.Busy[^\n]*\n"
        "ERROR Not able to set Pairable property\n"
        "(ERROR setBluetoothComponents : failed to configure pairable properties\n)?");
    return std::regex_replace(errors(), busy, "");
}

void Records::clear() { appender->clear(); }

void expectSwitchedOn(const Records& records) {
    EXPECT_EQ(records.faults(), "");
    EXPECT_EQ(board::fileContent("/tmp/bluetoothEnabled"), "1");
    EXPECT_EQ(board::adapterFaults(), "") << records.errors();
}
