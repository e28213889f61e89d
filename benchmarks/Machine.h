#pragma once

namespace corvane::bench {

/// To be called before the manager is made. In the programs that are linked with
/// corvane-bench-machine no command of the library runs and no line, radio or file of the machine
/// is touched: here the stand-in gets a folder of its own, in which hci0 exists.
void useNoHardware();

}  // namespace corvane::bench
