// The store library's helpers on Linux: MAC text and comparison, the whole-file lock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/unique_fd.h"
#include "platform/mib.h"

namespace {

// Names parameterised cases after their `name` member.
struct CaseName {
    template <typename T>
    std::string operator()(const ::testing::TestParamInfo<T> &param) const {
        return param.param.name;
    }
};

using Mac = std::array<unsigned char, 6>;

struct GoodMacCase {
    const char *name;
    const char *text;
    Mac mac;
};

class MacTextGood : public ::testing::TestWithParam<GoodMacCase> {};

TEST_P(MacTextGood, Converts) {
    Mac out{};
    EXPECT_EQ(convertMacFormat(GetParam().text, out.data()), 1);
    EXPECT_EQ(out, GetParam().mac);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, MacTextGood,
    ::testing::Values(
        GoodMacCase{"Lower", "aa:bb:cc:dd:ee:ff", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}},
        GoodMacCase{"MixedCase", "Aa:bB:CC:0d:E0:1F", {0xaa, 0xbb, 0xcc, 0x0d, 0xe0, 0x1f}},
        GoodMacCase{"SingleDigits", "0:1:2:a:b:F", {0, 1, 2, 0xa, 0xb, 0xf}},
        GoodMacCase{"Zero", "00:00:00:00:00:00", {0, 0, 0, 0, 0, 0}}),
    CaseName());

struct BadMacCase {
    const char *name;
    const char *text;
};

class MacTextBad : public ::testing::TestWithParam<BadMacCase> {};

TEST_P(MacTextBad, RefusedAndOutputUntouched) {
    Mac out;
    out.fill(0x5a);
    EXPECT_EQ(convertMacFormat(GetParam().text, out.data()), 0);
    EXPECT_EQ(out, (Mac{0x5a, 0x5a, 0x5a, 0x5a, 0x5a, 0x5a}));
}

INSTANTIATE_TEST_SUITE_P(Texts, MacTextBad,
                         ::testing::Values(BadMacCase{"Null", nullptr}, BadMacCase{"Empty", ""},
                                           BadMacCase{"FiveGroups", "aa:bb:cc:dd:ee"},
                                           BadMacCase{"SevenGroups", "aa:bb:cc:dd:ee:ff:00"},
                                           BadMacCase{"TrailingColon", "aa:bb:cc:dd:ee:ff:"},
                                           BadMacCase{"TrailingBlank", "aa:bb:cc:dd:ee:ff "},
                                           BadMacCase{"LeadingBlank", " aa:bb:cc:dd:ee:ff"},
                                           BadMacCase{"ThreeDigits", "aaa:bb:cc:dd:ee:ff"},
                                           BadMacCase{"ThreeDigitsLast", "aa:bb:cc:dd:ee:fff"},
                                           BadMacCase{"EmptyGroup", "aa::cc:dd:ee:ff"},
                                           BadMacCase{"Dashes", "aa-bb-cc-dd-ee-ff"},
                                           BadMacCase{"NotHex", "gg:bb:cc:dd:ee:ff"},
                                           BadMacCase{"SignedGroup", "+a:bb:cc:dd:ee:ff"}),
                         CaseName());

TEST(MacHelpers, ZeroAndComparison) {
    const Mac zero{};
    const Mac a{0, 0, 0, 0, 0, 1};
    const Mac b{1, 0, 0, 0, 0, 0};
    EXPECT_EQ(isZeroMac(zero.data()), 1);
    EXPECT_EQ(isZeroMac(a.data()), 0);
    EXPECT_EQ(isZeroMac(b.data()), 0);
    EXPECT_EQ(macAddrCmp(a.data(), Mac{a}.data()), 0);
    EXPECT_LT(macAddrCmp(a.data(), b.data()), 0);
    EXPECT_GT(macAddrCmp(b.data(), a.data()), 0);
}

// ---- flock_set ----

class FileLock : public ::testing::Test {
   protected:
    void SetUp() override {
        char pattern[] = "/tmp/hostrix-lock-XXXXXX";
        fd_.reset(mkstemp(pattern));
        ASSERT_TRUE(fd_.valid());
        path_ = pattern;
    }
    void TearDown() override { (void)std::remove(path_.c_str()); }

    // Whether another process could take a write lock on [start, start + length).
    bool otherProcessCanLock(off_t start, off_t length) const {
        pid_t pid = fork();
        if (pid == 0) {
            UniqueFd other(open(path_.c_str(), O_RDWR | O_CLOEXEC));
            struct flock lock {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            lock.l_start = start;
            lock.l_len = length;
            _exit(other.valid() && fcntl(other.get(), F_SETLK, &lock) == 0 ? 0 : 1);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    UniqueFd fd_;
    std::string path_;
};

TEST_F(FileLock, HeldLockCoversTheWholeFileUntilReleased) {
    ASSERT_EQ(flock_set(fd_.get(), kLockWrite), 0);
    EXPECT_FALSE(otherProcessCanLock(0, 1));
    EXPECT_FALSE(otherProcessCanLock(1 << 20, 1));  // beyond the end: a growing file stays locked
    ASSERT_EQ(flock_set(fd_.get(), kLockUnlock), 0);
    EXPECT_TRUE(otherProcessCanLock(0, 0));
}

TEST_F(FileLock, RefusesUnknownTypeAndBadDescriptor) {
    EXPECT_EQ(flock_set(fd_.get(), 0), -1);
    EXPECT_EQ(flock_set(fd_.get(), 3), -1);
    EXPECT_EQ(flock_set(-1, kLockWrite), -1);
    EXPECT_TRUE(otherProcessCanLock(0, 0));
}

}  // namespace
