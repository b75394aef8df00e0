// The store library's helpers on Linux: MAC text and the whole-file lock.
#include <fcntl.h>
#include <sys/wait.h>

#include "linux_test_support.h"

namespace {

using Mac = std::array<unsigned char, 6>;

TEST(MacText, ConvertsWellFormedTextOnly) {
    const std::pair<const char *, Mac> good[] = {
        {"aa:bb:cc:dd:ee:ff", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}},
        {"Aa:bB:CC:0d:E0:1F", {0xaa, 0xbb, 0xcc, 0x0d, 0xe0, 0x1f}},
        {"0:1:2:a:b:F", {0, 1, 2, 0xa, 0xb, 0xf}}};
    for (const auto &[text, mac] : good) {
        Mac out{};
        EXPECT_EQ(convertMacFormat(text, out.data()), 1) << text;
        EXPECT_EQ(out, mac) << text;
    }
    const Mac untouched{0x5a, 0x5a, 0x5a, 0x5a, 0x5a, 0x5a};
    Mac out = untouched;
    EXPECT_EQ(convertMacFormat(nullptr, out.data()), 0);
    EXPECT_EQ(convertMacFormat("", out.data()), 0);
    const char *const bad[] = {"aa:bb:cc:dd:ee",     "aa:bb:cc:dd:ee:ff:", "aa:bb:cc:dd:ee:ff ",
                               "aaa:bb:cc:dd:ee:ff", "aa::cc:dd:ee:ff",    "aa-bb-cc-dd-ee-ff",
                               "gg:bb:cc:dd:ee:ff",  "+a:bb:cc:dd:ee:ff"};
    for (const char *text : bad) EXPECT_EQ(convertMacFormat(text, out.data()), 0) << text;
    EXPECT_EQ(out, untouched);
}

// Whether another process could take a read lock, as readers of the host file do, on
// [start, start + length) of PATH.
bool otherProcessCanLock(const std::string &path, off_t start, off_t length) {
    pid_t pid = fork();
    if (pid == 0) {
        UniqueFd other(open(path.c_str(), O_RDWR | O_CLOEXEC));
        struct flock lock {};  // MIPS's has more fields than these
        lock.l_type = F_RDLCK, lock.l_whence = SEEK_SET, lock.l_start = start, lock.l_len = length;
        _exit(other.valid() && fcntl(other.get(), F_SETLK, &lock) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(FileLock, HeldLockCoversTheWholeFileUntilReleased) {
    TempDir dir;
    const std::string path = dir.file("lock");
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_TRUE(fd.valid());
    EXPECT_EQ(flock_set(fd.get(), 3), -1);  // neither lock nor unlock

    ASSERT_EQ(flock_set(fd.get(), kLockWrite), 0);
    EXPECT_FALSE(otherProcessCanLock(path, 0, 1));
    EXPECT_FALSE(otherProcessCanLock(path, 1 << 20, 1));  // a growing file stays locked
    ASSERT_EQ(flock_set(fd.get(), kLockUnlock), 0);
    EXPECT_TRUE(otherProcessCanLock(path, 0, 0));
}

}  // namespace
