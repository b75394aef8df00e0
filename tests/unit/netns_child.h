// Checks against the real kernel in a forked child that has its own network and mount
// namespaces, with sysfs mounted afresh so /sys/class/net shows that namespace. No
// interface the child makes is seen outside it. The child reports by its exit status
// and says on standard error which check failed.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

inline constexpr int kNetnsPassed = 0, kNetnsCheckFailed = 1, kNetnsNoNamespace = 101,
                     kNetnsNoSetup = 102;

// In the child: a failed check prints where it is and ends the child's body.
#define NETNS_CHECK(condition)                                                                 \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            return kNetnsCheckFailed;                                                          \
        }                                                                                      \
    } while (0)

// The bridge "br0" (MAC 0a:77:00:00:00:b0) with the port "d0" (0a:77:00:00:00:d0), all up.
// A dummy port where the kernel has the driver, else one end of a veth pair.
inline bool netnsMakeBridge() {
    return std::system(
               "ip link add br0 address 0a:77:00:00:00:b0 type bridge && "
               "{ ip link add d0 address 0a:77:00:00:00:d0 type dummy 2>/dev/null || "
               "{ ip link add d0 address 0a:77:00:00:00:d0 type veth peer name d0p && "
               "ip link set d0p up; }; } && "
               "ip link set d0 master br0 && ip link set d0 up && ip link set br0 up") == 0;
}

// Without root, unshare fails here too.
inline bool netnsEnter() {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    (void)umount2("/sys", MNT_DETACH);
    return mount("sysfs", "/sys", "sysfs", 0, nullptr) == 0;
}

// The running test passes when BODY does in a child in fresh namespaces, and is skipped
// where the child cannot have its namespaces or its bridge.
inline void expectPassesInPrivateNetns(int (*body)()) {
    // Under qemu-user (the cross runs) the kernel's replies reach the test through
    // qemu's own translation and timing, which says nothing of the daemon on a box.
    if (std::getenv("HOSTRIX_NO_NETNS")) GTEST_SKIP() << "kernel checks are off (HOSTRIX_NO_NETNS)";
    (void)std::fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(netnsEnter() ? body() : kNetnsNoNamespace);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) ASSERT_EQ(errno, EINTR);
    status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (status == kNetnsNoNamespace)
        GTEST_SKIP() << "no private network and mount namespace could be made (root is needed)";
    if (status == kNetnsNoSetup) GTEST_SKIP() << "the bridge br0 and its port could not be made";
    EXPECT_EQ(status, kNetnsPassed) << "the child's message above names the failed check";
}
