// Reads and writes small files completely.

#include "LogAppender.h"
#include "hwcommon/fileUtil.h"

#include <log4cplus/loggingmacros.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

bool failed(const char* what, const std::string& path) {
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "cannot " << what << " " << path);
    return false;
}

bool writeAll(int file, const std::string& content) {
    // The host's signals may interrupt write() and fsync(). mkostemp() lets only the owner read.
    const auto size = static_cast<ssize_t>(content.size());
    return TEMP_FAILURE_RETRY(write(file, content.data(), content.size())) == size &&
           fchmod(file, 0644) == 0 && TEMP_FAILURE_RETRY(fsync(file)) == 0;
}

}  // namespace

namespace hwcommon {

bool fileUtil::exists(const std::string& path) {
    std::error_code error;
    return fs::exists(path, error);
}

bool fileUtil::getFileContent(const std::string& path, std::string& content,
                              std::ios_base::openmode mode) {
    constexpr off_t largest = 1 << 20;
    if (mode != std::ios_base::in && mode != (std::ios_base::in | std::ios_base::binary)) {
        return failed("read", path);
    }
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0) return failed("read", path);
    struct stat status {};
    std::string text;
    bool complete =
        fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= largest;
    if (complete) {
        text.resize(static_cast<std::size_t>(status.st_size));
        complete = TEMP_FAILURE_RETRY(read(file, text.data(), text.size())) == status.st_size;
    }
    close(file);
    if (!complete) return failed("read", path);
    content = std::move(text);
    return true;
}

bool fileUtil::saveContentToFile(const std::string& path, const std::string& content,
                                 std::ios_base::openmode mode) {
    if (mode != (std::ios_base::out | std::ios_base::trunc)) return failed("write", path);
    std::string temporary = path + ".XXXXXX";
    const int file = mkostemp(temporary.data(), O_CLOEXEC);
    if (file < 0) return failed("write", path);
    const bool written = writeAll(file, content);
    close(file);
    if (written && std::rename(temporary.c_str(), path.c_str()) == 0) return true;
    unlink(temporary.c_str());
    return failed("write", path);
}

}  // namespace hwcommon
