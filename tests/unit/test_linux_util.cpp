// The store library's helpers on Linux: MAC text and the whole-file lock.
#include <fcntl.h>

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

// A reader of the host file, as another open of it, asks for a read lock on one byte at
// START: the type of lock it would meet. Open file description locks meet the process's
// own record locks, so no second process is needed.
TEST(FileLock, HeldLockCoversTheWholeFileUntilReleased) {
    TempDir dir;
    const std::string path = dir.file("lock");
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    UniqueFd reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    auto met = [&reader](off_t start) {
        struct flock lock {};  // MIPS's has more fields than these
        lock.l_type = F_RDLCK, lock.l_whence = SEEK_SET, lock.l_start = start, lock.l_len = 1;
        return fcntl(reader.get(), F_OFD_GETLK, &lock) == 0 ? int{lock.l_type} : -1;
    };
    EXPECT_EQ(flock_set(fd.get(), 3), -1);  // neither lock nor unlock
    ASSERT_EQ(flock_set(fd.get(), kLockWrite), 0);
    EXPECT_EQ(std::pair(met(0), met(1 << 20)), std::pair(F_WRLCK, F_WRLCK));  // growing: locked
    ASSERT_EQ(flock_set(fd.get(), kLockUnlock), 0);
    EXPECT_EQ(met(0), F_UNLCK);
}

}  // namespace
