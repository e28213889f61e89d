#include "Machine.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace corvane::bench {

void useNoHardware() {
    namespace fs = std::filesystem;
    std::string folder = (fs::temp_directory_path() / "corvane-bench-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror(folder.c_str());
        std::exit(EXIT_FAILURE);
    }
    static const std::string root = folder;
    fs::create_directories(root + "/sys/class/bluetooth/hci0");
    fs::create_directories(root + "/tmp");
    setenv("CORVANE_TEST_ROOT", root.c_str(), 1);
    std::at_quick_exit([] { fs::remove_all(root); });
    std::atexit([] { fs::remove_all(root); });
}

}  // namespace corvane::bench
