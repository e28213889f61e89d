#pragma once

#include <functional>
#include <map>
#include <string>

/// The board's state, read with the board's own tools and never through the library.
namespace board {

/// Runs a command line on the board.
/// @return its output
std::string run(const std::string& commandLine);

/// Returns the radio wiring that the board was started with, 0 to 2.
int wiring();

/// Returns the levels of the held GPIO lines, by global number (debugfs).
std::map<unsigned, int> lineLevels();

/// Returns a property of the adapter as dbus-send prints it: "true", "\"name\"", "8448".
std::string adapterProperty(const std::string& name);

/// Returns how the adapter differs from its state after switching on; empty if it does not. BlueZ
/// may make it pairable a moment later.
std::string adapterFaults();

bool busNameOwned(const std::string& name);

/// Counts the processes that run this executable.
unsigned processes(const std::string& path);

/// Counts the zombie processes.
unsigned zombies();

/// Returns a file's content; nothing if there is no such file.
std::string fileContent(const std::string& path);

/// The longest wait for something that must happen, on a busy build machine.
constexpr unsigned patience = 300000;  // ms

/// Waits for a condition.
/// @return whether it became true in time
bool waitFor(const std::function<bool()>& condition, unsigned milliseconds = patience);

}  // namespace board
