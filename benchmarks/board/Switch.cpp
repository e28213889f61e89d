// Switches the board's radio on through the library, and off again.
//
// Usage: corvane-bench-switch CHECK
//   Prints how long construction and switching on took, in microseconds. CHECK is a command that
//   looks at the radio while it is on.

#include "BluetoothManager.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

template <class Action>
void measure(const char* name, const Action& action) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    action();
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
    std::printf("%s/library %lld\n", name, static_cast<long long>(time.count()));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    measure("load", [] { BluetoothManager::getInstance(); });
    BluetoothManager& manager = BluetoothManager::getInstance();
    measure("on", [&manager] { manager.setEnabled(true, false); });
    const int status = std::system(argv[1]);
    manager.setEnabled(false, true);
    std::quick_exit(status == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}
