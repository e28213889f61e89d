#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

namespace {

struct LateLogger {
    LateLogger() { LOG4CPLUS_INFO(LogAppender::getLogger(), "before main"); }
    ~LateLogger() {
        LOG4CPLUS_DEBUG(LogAppender::getLogger(), "too low");
        LOG4CPLUS_INFO(LogAppender::getLogger(), "after \x1B[31m main");
    }
};

const LateLogger lateLogger;

}  // namespace

int main() { return 0; }
