#pragma once

#include <ios>
#include <string>

namespace hwcommon {

/// Reads and writes small files completely.
///
/// libCorvane relies on this: the return values; saveContentToFile() leaves either the old or the
/// new content, never a part of it. Any thread may call these functions. They throw nothing but
/// std::bad_alloc.
class fileUtil {
public:
    /// Checks for a file, a folder or a link with a target.
    /// @param path  the path
    /// @return whether there is one
    static bool exists(const std::string& path);

    /// Reads a file completely.
    /// @param path     the file
    /// @param content  gets the file's content; unchanged on failure
    /// @param mode     std::ios_base::in, optionally with std::ios_base::binary
    /// @return true on success; false, with the reason in the log, when the file cannot be read, is
    /// not a regular file, is larger than 1 MiB or is a symbolic link (anyone may plant one in a
    /// shared folder)
    static bool getFileContent(const std::string& path, std::string& content,
                               std::ios_base::openmode mode = std::ios_base::in);

    /// Replaces a file's content completely or not at all, even if the process dies or the disk is
    /// full. A symbolic link is replaced, never followed. Everybody may read the new file (mode
    /// 0644). A killed process may leave a file `path`.XXXXXX behind.
    /// @param path     the file
    /// @param content  the new content
    /// @param mode     std::ios_base::out | std::ios_base::trunc; any other mode fails
    /// @return true on success; false, with the reason in the log, when the file is unchanged
    static bool saveContentToFile(const std::string& path, const std::string& content,
                                  std::ios_base::openmode mode = std::ios_base::out |
                                                                 std::ios_base::trunc);
};

}  // namespace hwcommon
