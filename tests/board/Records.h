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

    /// The same without those of a Pairable that was told "Busy": BlueZ sets it itself at that
    /// moment, and the adapter shows that it did.
    std::string faults() const;

    void clear();

private:
    class Appender;
    Appender* const appender;  // owned by the logger
};

/// Expects that the radio was switched on without a fault, and that the adapter is as it should be.
/// @param records  those of the switching on
void expectSwitchedOn(const Records& records);
