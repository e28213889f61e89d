#pragma once

#include <filesystem>
#include <string>

#include <sys/types.h>

namespace corvane::test {

/// A folder for a test's files. The destructor removes it, or a helper process if the test dies
/// first.
class Folder {
public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::filesystem::path& path() const { return where; }
    std::string operator/(const std::string& name) const { return where / name; }

private:
    std::filesystem::path where;
    pid_t keeper = -1;
    int lifeline = -1;  // the helper waits for its end
};

}  // namespace corvane::test
