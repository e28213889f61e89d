// Lists BlueZ's devices, once for each line of standard input, as programs on Qt do.
//
// Usage: corvane-bench-scan-qt bluezqt|qt-bluetooth

#include "Measuring.h"

#include <QBluetoothDeviceDiscoveryAgent>
#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <BluezQt/InitManagerJob>
#include <BluezQt/Manager>

namespace {

std::int64_t bluezQt(unsigned& count) {
    const std::int64_t start = corvane::bench::nanoseconds();
    BluezQt::Manager manager;
    BluezQt::InitManagerJob* const job = manager.init();
    job->exec();
    count = static_cast<unsigned>(manager.devices().size());
    return corvane::bench::nanoseconds() - start;
}

/// The agent hands out what BlueZ knows before it looks for more.
std::int64_t qtBluetooth(unsigned& count) {
    const std::int64_t start = corvane::bench::nanoseconds();
    QBluetoothDeviceDiscoveryAgent agent;
    agent.start();
    count = static_cast<unsigned>(agent.discoveredDevices().size());
    const std::int64_t time = corvane::bench::nanoseconds() - start;
    agent.stop();
    return time;
}

}  // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    if (argc == 2 && std::strcmp(argv[1], "bluezqt") == 0) {
        return corvane::bench::serveRounds(bluezQt);
    }
    if (argc == 2 && std::strcmp(argv[1], "qt-bluetooth") == 0) {
        return corvane::bench::serveRounds(qtBluetooth);
    }
    std::fputs("usage: corvane-bench-scan-qt bluezqt|qt-bluetooth\n", stderr);
    return 2;
}
