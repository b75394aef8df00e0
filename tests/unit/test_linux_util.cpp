// The store library's whole-file lock on Linux.
#include <fcntl.h>

#include "linux_test_support.h"

namespace {

// A reader of the host file, as another open of it, asks for a read lock on one byte at
// START: the type of lock it would meet. Open file description locks meet the process's
// own record locks, so no second process is needed.
TEST(FileLock, HeldLockCoversTheWholeFileUntilReleased) {
    TempDir dir;
    UniqueFd fd(open(dir.file("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    UniqueFd reader(open(dir.file("lock").c_str(), O_RDONLY | O_CLOEXEC));
    auto met = [&reader](off_t start) {
        struct flock lock {};  // MIPS's has more fields than these
        lock.l_type = F_RDLCK, lock.l_whence = SEEK_SET, lock.l_start = start, lock.l_len = 1;
        return fcntl(reader.get(), F_OFD_GETLK, &lock) == 0 ? int{lock.l_type} : -1;
    };
    ASSERT_EQ(flock_set(fd.get(), kLockWrite), 0);
    EXPECT_EQ(std::pair(met(0), met(1 << 20)), std::pair(F_WRLCK, F_WRLCK));  // growing: locked
    ASSERT_EQ(flock_set(fd.get(), kLockUnlock), 0);
    EXPECT_EQ(met(0), F_UNLCK);
}

}  // namespace
