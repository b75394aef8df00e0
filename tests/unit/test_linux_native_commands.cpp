// Native commands: which lines are recognised, the grep of the snapshot, and the
// commands against a real kernel in a private network namespace where no program can be
// executed at all; there the neighbour listing must equal the text of the real `ip`.
// Interface names the gateway maps are the lab's (profile openwrt) to check.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cstddef>

#include "linux_test_support.h"
#include "netns_child.h"
#include "platform/linux/native_commands.h"
#include "platform/os.h"

namespace {

using Kind = NativeKind;

constexpr char kFuncoff[] =
    "iwpriv wlan0-vap1 get_mib func_off | tail -n 1 | awk -F':' '{print $NF}' | sed 's/ //g'";

// Each line with the kind and the fields (address|ifname|mac|path) it must give; anything
// more or less than the shape, or a field that is not what it says, is left to the shell.
TEST(NativeCommands, RecognisesExactShapesOnly) {
    const std::tuple<const char *, Kind, std::string> good[] = {
        {"ip -6 neigh", Kind::Ipv6NeighList, "|||"},
        {"/bin/arp -d 192.168.1.5\n", Kind::ArpDelete, "192.168.1.5|||"},
        {"/bin/ip -6 neigh del fd77::77:ff:fe00:1 dev br0", Kind::Ipv6NeighDelete,
         "fd77::77:ff:fe00:1|br0||"},
        {"bridge fdb del 0a:77:00:00:00:01 dev wlan0-vap1 vlan 1 master", Kind::BridgeFdbDelete,
         "|wlan0-vap1|0a:77:00:00:00:01|"},
        {"cat /proc/fc/sw_dump/l2 > /tmp/hostrix-x/fc_lut_list", Kind::FcSnapshot,
         "|||/tmp/hostrix-x/fc_lut_list"},
        {"cat /tmp/f | grep -A 1 \"0A:77:00:00:00:01\"", Kind::FcSearch,
         "||0A:77:00:00:00:01|/tmp/f"},
        {kFuncoff, Kind::WlanFuncoff, "|wlan0-vap1||"},
    };
    for (const auto &[line, kind, fields] : good) {
        const auto c = recogniseCommand(line);
        ASSERT_TRUE(c) << line;
        const std::string got = std::string(c->address) + "|" + std::string(c->ifname) + "|" +
                                std::string(c->mac) + "|" + std::string(c->path);
        EXPECT_EQ(std::pair(c->kind, got), std::pair(kind, fields)) << line;
    }
    for (const char *line : {"", "ip -6 neigh; reboot", "arp -d 192.168.1.256",
                             "/bin/ip -6 neigh del fd77::zz dev br0",
                             "/bin/ip -6 neigh del fd77::1 dev br0$(reboot)",
                             "/bin/ip -6 neigh del fd77::1 dev -br0",  // read as an option
                             "bridge fdb del 0a:77:00:00:00:1 dev wlan0 vlan 1 master",
                             "bridge fdb del 0a:77:00:00:00:01 dev wlan0 vlan 2 master",
                             "cat /proc/fc/sw_dump/l2 > /tmp/`reboot`",
                             "cat /proc/fc/sw_dump/l2 >> /tmp/fc_lut_list",
                             "cat /tmp/fc_lut_list | grep -A 1 \"0a:77:00:00:00:01\" | sh",
                             "iwpriv wlan0 get_mib func_off"})
        EXPECT_FALSE(recogniseCommand(line)) << line;
}

TEST(NativeCommands, GrepWithTheLineAfter) {
    const std::pair<const char *, const char *> cases[] = {
        {"MAC 1\nidle 3\nb\nc\nMAC 2\nidle 4", "MAC 1\nidle 3\n--\nMAC 2\nidle 4\n"},
        {"MAC 1\nMAC 2\nidle 4\nMAC 3\n", "MAC 1\nMAC 2\nidle 4\nMAC 3\n"},  // groups that touch
        {"a\nMAC", "MAC\n"},
    };
    for (const auto &[text, expected] : cases) EXPECT_EQ(grepWithNextLine(text, "MAC"), expected);
}

// ------------------------------------------------------------- against the kernel

// From here on no program can start in this process or its children: every command
// that still works was carried out natively.
bool forbidExec() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),  // the system call
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_execve, 2, 0),           // execve: refuse
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_execveat, 1, 0),         // execveat: refuse
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),                    // all else: allow
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

void setCommands(const char *mode) {
    const std::string dir = std::string(getenv("HOSTRIX_ROOT")) + "/etc/hostrix";
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/mib.conf", std::ios::trunc) << "commands = " << mode << "\n";
    mibConfigReset();
}

// The whole output of a reading command, whose child, if any, os_pclose collected.
std::string readCommand(const char *line) {
    FILE *stream = os_popen_read(line);
    if (!stream) return "(no stream)";
    std::string text;
    char chunk[512];
    while (size_t got = std::fread(chunk, 1, sizeof chunk, stream)) text.append(chunk, got);
    int status = 0;
    return os_pclose(stream) == 0 && waitpid(-1, &status, WNOHANG) == -1 ? text : "(not closed)";
}

// Whether br0 forwards to MAC, a record's first six bytes in its brforward table.
bool hasFdbEntry(const char (&mac)[7]) {
    return readText("/sys/class/net/br0/brforward").find(std::string(mac, 6)) != std::string::npos;
}

constexpr char kNeighSetup[] =
    "ip link add br1 type bridge && ip link set br1 up && "
    "ip -6 neigh add fd77::1 lladdr 0a:77:00:00:00:01 dev br0 nud reachable && "
    "ip -6 neigh add fd77::2 dev br0 nud failed && "
    "ip -6 neigh add fe80::3 lladdr 0a:77:00:00:00:03 dev br0 nud permanent router && "
    "ip -6 neigh add fd77::4 lladdr 0a:77:00:00:00:04 dev br0 nud noarp && "
    "ip -6 neigh add fd77::5 lladdr 0a:77:00:00:00:05 dev br0 nud stale proto static && "
    "ip neigh add 10.7.0.9 lladdr 0a:77:00:00:00:09 dev br0 && "
    "ip neigh add 10.7.0.9 lladdr 0a:77:00:00:00:09 dev br1 && "
    "bridge fdb add 0a:77:00:00:00:0a dev d0 master static";

int checkNeighbours() {
    if (!netnsMakeBridge() || std::system(kNeighSetup) != 0) return kNetnsNoSetup;
    setCommands("shell");
    const std::string fromIp = readCommand("ip -6 neigh");
    NETNS_CHECK(fromIp.find("fd77::1 dev br0 lladdr 0a:77:00:00:00:01 REACHABLE") !=
                std::string::npos);
    setCommands("native");
    NETNS_CHECK(forbidExec() && readCommand("ip -6 neigh") == fromIp);
    NETNS_CHECK(os_system("/bin/ip -6 neigh del fd77::1 dev br0") == 0 &&
                readCommand("ip -6 neigh").find("fd77::1 ") == std::string::npos);
    NETNS_CHECK(os_system("/bin/ip -6 neigh del fd77::1 dev br0") == 0);  // gone already: done
    NETNS_CHECK(readText("/proc/net/arp").find("10.7.0.9 ") != std::string::npos &&
                os_system("/bin/arp -d 10.7.0.9\n") == 0 &&  // from both bridges
                readText("/proc/net/arp").find("10.7.0.9 ") == std::string::npos);
    NETNS_CHECK(va_cmd("/bin/sh", 2, 1, "-c", "arp -d 10.7.0.9") == 0);  // nothing left: done
    const char kHost[] = "\x0a\x77\x00\x00\x00\x0a";
    NETNS_CHECK(hasFdbEntry(kHost) &&
                os_system("bridge fdb del 0a:77:00:00:00:0a dev d0 vlan 1 master") == 0 &&
                !hasFdbEntry(kHost));
    NETNS_CHECK(os_system("/bin/ip -6 neigh del fd77::5 dev nosuch0") != 0 &&
                readCommand(kFuncoff).empty());
    // The shell is still there for the rest, and for everything under "commands = shell".
    NETNS_CHECK(os_system("true") != 0);
    setCommands("shell");
    NETNS_CHECK(readCommand("ip -6 neigh") == "(no stream)");  // the shell could not start
    return kNetnsPassed;
}

TEST_F(HostrixRootTest, NativeNeighbourCommandsMatchTheToolsAndStartNothing) {
    expectPassesInPrivateNetns(checkNeighbours);
}

}  // namespace
