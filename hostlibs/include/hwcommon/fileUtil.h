#pragma once

#include <ios>
#include <string>

namespace hwcommon {

/// Small files, read and written whole.
///
/// What libCorvane relies on: the return values, and that saveContentToFile() leaves either the old
/// or the new content, never a part of it. All functions may be called from any thread and throw
/// nothing but std::bad_alloc.
class fileUtil {
public:
    /// @return true when something is there (a file, a folder, a link that leads somewhere)
    static bool exists(const std::string& path);

    /// Reads a whole file into `content`, which stays as it was on failure.
    /// @param mode  std::ios_base::in, or with std::ios_base::binary
    /// @return true on success; false when the file cannot be read, is no regular file, is larger
    /// than 1 MiB or is a symbolic link (anyone may plant one in a shared folder); the reason is
    /// logged
    static bool getFileContent(const std::string& path, std::string& content,
                               std::ios_base::openmode mode = std::ios_base::in);

    /// Replaces a file's content: whole or not at all, also when the process dies or the disk is
    /// full. A symbolic link at `path` is replaced, never followed. The new file is readable by all
    /// (mode 0644). A process that is killed meanwhile may leave a file `path`.XXXXXX behind.
    /// @param mode  std::ios_base::out | std::ios_base::trunc; any other mode is refused
    /// @return true on success; on false the file is as it was and the reason is logged
    static bool saveContentToFile(const std::string& path, const std::string& content,
                                  std::ios_base::openmode mode = std::ios_base::out |
                                                                 std::ios_base::trunc);
};

}  // namespace hwcommon
