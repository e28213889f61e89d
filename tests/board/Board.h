#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>

/// What the board itself shows, read with its own tools and never through the library.
namespace board {

/// Runs a command line on the board. @return what it printed
std::string run(const std::string& commandLine);

/// The radio wiring that the board was started with, 0 to 2.
int wiring();

/// Levels of the lines that somebody holds, by global number (debugfs).
std::map<unsigned, int> lineLevels();

/// A property of the adapter as dbus-send prints its value: "true", "\"name\"", "8448".
std::string adapterProperty(const std::string& name);

/// What of the adapter is not as switching on leaves it; empty when all is well. BlueZ may make it
/// pairable a moment later.
std::string adapterFaults();

/// The Class of Device that the controller answers, as hciconfig prints it: "0x002100".
std::string controllerClass();

bool busNameOwned(const std::string& name);

/// Number of processes that run this executable.
unsigned processes(const std::string& path);

/// The executable that a process runs; empty when there is no such process.
std::string executableOf(int process);

/// Number of processes that have ended and were not waited for.
unsigned zombies();

/// What this process has open: a line for each descriptor, without what differs between sockets.
/// Waits until two looks a second apart agree: GDBus's thread closes a connection that nobody
/// holds any more some moments later.
std::multiset<std::string> openDescriptors();

bool fileExists(const std::string& path);

/// What can be read of a file; nothing when it is not there.
std::string fileContent(const std::string& path);

/// How long something may take that is sure to come: the board may share its machine with much
/// other work.
constexpr unsigned patience = 300000;  // ms

/// Waits for a condition. @return whether it came true in time
bool waitFor(const std::function<bool()>& condition, unsigned milliseconds = patience);

}  // namespace board
