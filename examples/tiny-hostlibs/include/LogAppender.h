#pragma once

#include <log4cplus/logger.h>

class LogAppender {
public:
    static log4cplus::Logger getLogger();
};
