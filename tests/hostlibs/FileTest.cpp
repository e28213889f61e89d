#include "Folder.h"
#include "hwcommon/fileUtil.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using hwcommon::fileUtil;
namespace fs = std::filesystem;

namespace {

// The fault of the C library's functions below, which replace the originals in this program.
enum class Fault { NONE, INTERRUPTED, DISK_FULL, FSYNC_FAILS };
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

}  // namespace

extern "C" ssize_t write(int fd, const void* data, size_t size) {
    if (fault == Fault::DISK_FULL) return failWith(ENOSPC);
    if (isInterrupted()) return -1;
    if (fault == Fault::INTERRUPTED) size = std::min<size_t>(size, 3);
    return syscall(SYS_write, fd, data, size);
}

extern "C" ssize_t read(int fd, void* data, size_t size) {
    return isInterrupted() ? -1 : syscall(SYS_read, fd, data, size);
}

extern "C" int fsync(int fd) {
    if (isInterrupted()) return -1;
    if (fault == Fault::FSYNC_FAILS) return failWith(EIO);
    return static_cast<int>(syscall(SYS_fsync, fd));
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
}

// The log loses nothing either: the missing file is in it.
TEST_F(Files, AreWholeEvenIfSignalsInterruptEachCall) {
    testing::internal::CaptureStderr();
    fault = Fault::INTERRUPTED;
    const bool saved = fileUtil::saveContentToFile(file, "a longer content");
    const std::string content = read(file);
    read(folder / "missing");
    fault = Fault::NONE;
    EXPECT_TRUE(saved);
    EXPECT_EQ(content, "a longer content");
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("20.*/missing: No such file or directory\n"));
}

TEST_F(Files, KeepTheirContentWhenWritingFails) {
    for (const Fault failure : {Fault::DISK_FULL, Fault::FSYNC_FAILS}) {
        fault = failure;
        const bool saved = fileUtil::saveContentToFile(file, "new");
        fault = Fault::NONE;
        EXPECT_FALSE(saved);
        EXPECT_EQ(read(file), "old");
    }
    EXPECT_FALSE(fileUtil::saveContentToFile(file, "1", std::ios_base::out | std::ios_base::app));
    fs::create_directory(folder / "folder");  // the rename fails
    EXPECT_FALSE(fileUtil::saveContentToFile(folder / "folder", "1"));
    EXPECT_FALSE(fileUtil::saveContentToFile(folder / "missing" / "flag", "1"));
    EXPECT_EQ(entries(), 2) << "no temporary file";
}
