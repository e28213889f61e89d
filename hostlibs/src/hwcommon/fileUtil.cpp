#include "hwcommon/fileUtil.h"

#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hwcommon {

namespace {

constexpr std::size_t maxFileSize = 1024UL * 1024UL;  // bytes; our files hold only a few
constexpr mode_t fileMode = 0644;                     // not only root reads the flag

std::string errorText(int error) { return std::generic_category().message(error); }

/// Repeats a call until no signal interrupts it: the host's handlers may lack SA_RESTART.
template <class Call>
auto uninterrupted(const Call& call) {
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

/// Owns a file descriptor.
class Descriptor {
public:
    explicit Descriptor(int opened) : fd(opened) {}
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd; }

    /// Closes it now; some file systems report a failed write only here.
    bool close() {
        const int closed = fd;
        fd = -1;
        // An interrupted close() has closed the file; fsync() has reported failed writes.
        return ::close(closed) == 0 || errno == EINTR;
    }

private:
    int fd;
};

/// Reads to the end of the file.
/// @return 0 or an errno; EFBIG beyond maxFileSize
int readAll(int fd, std::string& content) {
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t count =
            uninterrupted([&] { return ::read(fd, buffer.data(), buffer.size()); });
        if (count == 0) return 0;
        if (count < 0) return errno;
        content.append(buffer.data(), static_cast<std::size_t>(count));
        if (content.size() > maxFileSize) return EFBIG;
    }
}

bool writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count =
            uninterrupted([&] { return ::write(fd, content.data(), content.size()); });
        if (count < 0) return false;
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

/// Writes the content to disk and closes the file.
bool store(Descriptor& file, const std::string& content) {
    const int fd = file.get();
    return writeAll(fd, content) && ::fchmod(fd, fileMode) == 0 &&
           uninterrupted([fd] { return ::fsync(fd); }) == 0 && file.close();
}

}  // namespace

bool fileUtil::exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

bool fileUtil::getFileContent(const std::string& path, std::string& content,
                              std::ios_base::openmode mode) {
    const auto fail = [&path](const std::string& reason) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Cannot read " << path << ": " << reason);
        return false;
    };
    if ((mode & ~std::ios_base::binary) != std::ios_base::in)
        return fail("the mode must be in, optionally with binary");

    // O_NONBLOCK: opening a pipe must not wait for a writer.
    const Descriptor file(uninterrupted([&path] {
        return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    }));
    if (file.get() < 0) {
        return fail(errno == ELOOP ? "it is a symbolic link, which is not followed"
                                   : errorText(errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return fail(errorText(errno));
    if (!S_ISREG(status.st_mode)) return fail("it is not a regular file");

    std::string read;
    if (const int error = readAll(file.get(), read); error != 0) {
        return fail(error == EFBIG ? "it is larger than " + std::to_string(maxFileSize) + " bytes"
                                   : errorText(error));
    }
    content = std::move(read);
    return true;
}

bool fileUtil::saveContentToFile(const std::string& path, const std::string& content,
                                 std::ios_base::openmode mode) {
    const auto fail = [&path](const std::string& reason) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "Cannot write " << path << ": " << reason << "; it is left as it was");
        return false;
    };
    if (mode != (std::ios_base::out | std::ios_base::trunc)) {
        return fail("the mode must be out | trunc");
    }

    // Write a new file, then rename it over the old one.
    std::string temporary = path + ".XXXXXX";
    Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (file.get() < 0) return fail(errorText(errno));
    if (!store(file, content) || ::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return fail(errorText(error));
    }
    return true;
}

}  // namespace hwcommon
