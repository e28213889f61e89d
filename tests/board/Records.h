#pragma once

#include <log4cplus/loglevel.h>

#include <memory>
#include <string>

/// The records that the library writes while this object lives, from DEBUG up.
class Records {
public:
    Records();
    ~Records();
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    /// Whether a record has exactly this level and message.
    bool has(log4cplus::LogLevel level, const std::string& message) const;

    /// The messages of all records, one a line with its level in front.
    std::string all() const;

    /// The same of the ERROR records only.
    std::string errors() const;

    void clear();

private:
    class Appender;
    Appender* const appender;  // owned by the logger
};
