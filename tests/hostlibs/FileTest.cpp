#include "Folder.h"
#include "hwcommon/fileUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using hwcommon::fileUtil;
namespace fs = std::filesystem;

namespace {

// The fault of the C library's functions below, which replace the originals in this program.
enum class Fault { NONE, INTERRUPTED, DISK_FULL, FSYNC_FAILS, RENAME_FAILS, KILLED };
Fault fault = Fault::NONE;

int failWith(int error) {
    errno = error;
    return -1;
}

/// Tells whether a signal interrupts this call: the first, the third and so on.
bool isInterrupted() {
    static bool interrupted = false;
    interrupted = fault == Fault::INTERRUPTED && !interrupted;
    if (interrupted) errno = EINTR;
    return interrupted;
}

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" ssize_t write(int fd, const void* data, size_t size) {
    if (fault == Fault::DISK_FULL) return failWith(ENOSPC);
    if (isInterrupted()) return -1;
    if (fault == Fault::INTERRUPTED) size = std::min<size_t>(size, 3);
    return real<ssize_t(int, const void*, size_t)>("write")(fd, data, size);
}

extern "C" ssize_t read(int fd, void* data, size_t size) {
    return isInterrupted() ? -1 : real<ssize_t(int, void*, size_t)>("read")(fd, data, size);
}

extern "C" int fsync(int fd) {
    if (isInterrupted()) return -1;
    if (fault == Fault::FSYNC_FAILS) return failWith(EIO);
    if (fault == Fault::KILLED) raise(SIGKILL);
    return real<int(int)>("fsync")(fd);
}

extern "C" int rename(const char* from, const char* to) noexcept {
    if (fault == Fault::RENAME_FAILS) return failWith(EACCES);
    return real<int(const char*, const char*)>("rename")(from, to);
}

namespace {

/// A folder with one file in it.
class Files : public testing::Test {
protected:
    Files() { std::ofstream(file) << "old"; }

    static std::string read(const fs::path& path) {
        std::string content = "untouched";
        return fileUtil::getFileContent(path, content) ? content : "failed, " + content;
    }
    auto entries() const {
        return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
    }

    const corvane::test::Folder ownFolder;
    const fs::path& folder = ownFolder.path();
    const fs::path file = folder / "flag";
};

}  // namespace

TEST_F(Files, ReadBackAsWritten) {
    const std::string content("a\n\0b\r\n", 6);
    umask(077);
    ASSERT_TRUE(fileUtil::saveContentToFile(file, content));
    EXPECT_EQ(read(file), content);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0644));
    ASSERT_TRUE(fileUtil::saveContentToFile(file, ""));
    EXPECT_EQ(read(file), "");
    EXPECT_EQ(entries(), 1);
    EXPECT_EQ(read("/proc/self/comm"), "corvane-hostlib\n");  // a file whose size is told as 0
}

TEST_F(Files, AreReadOnlyIfRegularAndSmall) {
    fs::create_symlink(file, folder / "link");
    fs::create_symlink("nowhere", folder / "dangling");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0644), 0);
    for (const char* name : {"link", "dangling", "pipe", "missing", ""}) {
        EXPECT_EQ(read(folder / name), "failed, untouched") << name;
    }
    EXPECT_TRUE(fileUtil::exists(folder / "link"));
    EXPECT_FALSE(fileUtil::exists(folder / "dangling"));

    std::ofstream(file) << std::string(1024UL * 1024UL, 'x');
    EXPECT_EQ(read(file).size(), 1024UL * 1024UL);
    std::ofstream(file, std::ios::app) << 'x';
    EXPECT_EQ(read(file), "failed, untouched");
}

TEST_F(Files, AreNeverWrittenThroughALink) {
    fs::create_symlink(file, folder / "link");
    EXPECT_TRUE(fileUtil::saveContentToFile(folder / "link", "1"));
    EXPECT_EQ(read(file), "old");
    EXPECT_EQ(read(folder / "link"), "1");
    EXPECT_FALSE(fileUtil::saveContentToFile(file, "1", std::ios_base::out | std::ios_base::app));
    EXPECT_FALSE(fileUtil::saveContentToFile(folder, "1"));
    EXPECT_FALSE(fileUtil::saveContentToFile(folder / "missing" / "flag", "1"));
    EXPECT_EQ(entries(), 2);
}

TEST_F(Files, AreWholeEvenIfSignalsInterruptEachCall) {
    fault = Fault::INTERRUPTED;
    const bool saved = fileUtil::saveContentToFile(file, "a longer content");
    const std::string content = read(file);
    fault = Fault::NONE;
    EXPECT_TRUE(saved);
    EXPECT_EQ(content, "a longer content");
}

TEST_F(Files, KeepTheirContentWhenWritingFails) {
    for (const Fault failure : {Fault::DISK_FULL, Fault::FSYNC_FAILS, Fault::RENAME_FAILS}) {
        fault = failure;
        const bool saved = fileUtil::saveContentToFile(file, "new");
        fault = Fault::NONE;
        EXPECT_FALSE(saved);
        EXPECT_EQ(read(file), "old");
        EXPECT_EQ(entries(), 1);
    }
}

TEST_F(Files, KeepTheirContentWhenTheProcessIsKilled) {
    const pid_t child = fork();
    if (child == 0) {
        fault = Fault::KILLED;
        fileUtil::saveContentToFile(file, "new");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(read(file), "old");
}
