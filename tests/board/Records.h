#pragma once

#include <log4cplus/appender.h>

#include <string>

/// The library's records from DEBUG up, while this object exists: one per line, the level first.
class Records {
public:
    Records();
    ~Records();
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    std::string all() const;
    /// Returns the ERROR records only.
    std::string errors() const;
    /// Returns the ERROR records without those of a "Busy" Pairable: BlueZ sets it itself at that
    /// moment, as the adapter shows.
    std::string faults() const;
    /// Tells whether there is exactly this record.
    bool has(const std::string& line) const;
    static void clear();

private:
    log4cplus::SharedAppenderPtr appender;
};
