#include "Records.h"

#include "Board.h"
#include "LogAppender.h"

#include <gtest/gtest.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/layout.h>

#include <memory>
#include <regex>
#include <sstream>

#include <unistd.h>

namespace {

constexpr char file[] = "/tmp/records.log";

}  // namespace

Records::Records() : appender(new log4cplus::FileAppender(file, std::ios_base::app)) {
    clear();
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>("%p %m%n"));
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.addAppender(appender);
    logger.setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
}

Records::~Records() {
    log4cplus::Logger logger = LogAppender::getLogger();
    logger.removeAppender(appender);
}

std::string Records::all() const { return board::fileContent(file); }

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

void Records::clear() { EXPECT_EQ(truncate(file, 0), 0); }
