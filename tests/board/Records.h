#pragma once

#include <log4cplus/loglevel.h>

#include <memory>
#include <string>

/// The library's records from DEBUG up, while this object exists.
class Records {
public:
    Records();
    ~Records();
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    /// Tells whether a record has exactly this level and message.
    bool has(log4cplus::LogLevel level, const std::string& message) const;

    /// Returns all records, one per line, with the level first.
    std::string all() const;

    /// Returns the ERROR records only.
    std::string errors() const;

    /// Returns the ERROR records without those of a "Busy" Pairable: BlueZ sets it itself at that
    /// moment, as the adapter shows.
    std::string faults() const;

    void clear();

private:
    class Appender;
    Appender* const appender;  // owned by the logger
};

/// Expects that the radio was switched on without a fault and the adapter is as it should be.
/// @param records  the records of the switch-on
void expectSwitchedOn(const Records& records);
