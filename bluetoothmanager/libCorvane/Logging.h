#pragma once

#include "LogAppender.h"

#include <log4cplus/logger.h>

#include <sstream>

/// Logs one record with file, line and signature of the calling function. `message` is a chain of
/// <<, formatted only if the level is enabled.
#define CORVANE_LOG(level, message)                                                            \
    do {                                                                                       \
        const log4cplus::Logger& corvaneLogger = LogAppender::getLogger();                     \
        if (corvaneLogger.isEnabledFor(level)) {                                               \
            std::ostringstream corvaneMessage;                                                 \
            corvaneMessage << message; /* NOLINT(bugprone-macro-parentheses): a chain of << */ \
            corvaneLogger.forcedLog(level, corvaneMessage.str(), __FILE__, __LINE__,           \
                                    static_cast<const char*>(__PRETTY_FUNCTION__));            \
        }                                                                                      \
    } while (false)

#define CORVANE_TRACE(message) CORVANE_LOG(log4cplus::TRACE_LOG_LEVEL, message)
#define CORVANE_DEBUG(message) CORVANE_LOG(log4cplus::DEBUG_LOG_LEVEL, message)
#define CORVANE_INFO(message) CORVANE_LOG(log4cplus::INFO_LOG_LEVEL, message)
#define CORVANE_ERROR(message) CORVANE_LOG(log4cplus::ERROR_LOG_LEVEL, message)
