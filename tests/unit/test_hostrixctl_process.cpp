// The real hostrixctl binary: against a scripted control socket (exact requests,
// crafted replies), a crafted host file, no daemon at all, and the real daemon.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "control/ctrl_msg.h"
#include "daemon_process.h"
#include "hosts/lanhost.h"
#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

const std::string kMac = "00:11:22:33:44:01";

struct CtlResult {
    int code;
    std::string out;
    std::string err;
};

// One run of the client with HOSTRIX_ROOT set; its output kept in files.
class CtlProcess {
public:
    CtlProcess(const fs::path &root, std::vector<std::string> args) {
        static int serial = 0;
        files_ = (root / "ctl").string() + std::to_string(serial++);
        args.insert(args.begin(), HOSTRIXCTL_BINARY);
        if ((pid_ = fork()) != 0) return;
        setenv("HOSTRIX_ROOT", root.c_str(), 1);
        dup2(open((files_ + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        dup2(open((files_ + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
        std::vector<char *> argv;
        for (std::string &arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~CtlProcess() {
        if (pid_ <= 0 || wait(0) >= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    CtlProcess(const CtlProcess &) = delete;
    CtlProcess &operator=(const CtlProcess &) = delete;

    // Exit code, or -1 if it has not ended within MS (the destructor kills it).
    int wait(int ms = 15000) {
        for (int status = 0; pid_ > 0 && code_ < 0 && ms >= 0; ms -= 10) {
            if (waitpid(pid_, &status, WNOHANG) == pid_)
                code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            else if (ms > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return code_;
    }
    pid_t pid() const { return pid_; }
    std::string out() const { return readText(files_ + ".out"); }
    std::string err() const { return readText(files_ + ".err"); }

private:
    std::string files_;
    pid_t pid_ = -1;
    int code_ = -1;
};

// The record of host 00:11:22:33:44:LAST, named NAME.
lanHostInfo_t host(uint8_t last, const char *name) {
    lanHostInfo_t record{};
    const uint8_t mac[kMacLen] = {0x00, 0x11, 0x22, 0x33, 0x44, last};
    std::memcpy(record.mac, mac, kMacLen);
    std::strcpy(record.devName, name);
    return record;
}

// A stand-in for the daemon's control socket, served one connection at a time.
class FakeDaemon {
public:
    explicit FakeDaemon(const fs::path &root) {
        fs::create_directories(root / "var/run");
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::string path = (root / "var/run/.hostrix_msg").string();
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        timeval timeout{5, 0};  // bounds accept
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(listen(fd_, 8), 0);
    }
    ~FakeDaemon() { close(fd_); }

    // Takes the next request (all zero if none comes) and answers as the daemon does:
    // replyTag takes the request's status, status 0, then FILL; sends the first BYTES.
    ctrlMsg_t serve(const std::function<void(ctrlMsg_t &)> &fill = {},
                    size_t bytes = sizeof(ctrlMsg_t)) {
        ctrlMsg_t request{};
        int conn = accept(fd_, nullptr, nullptr);
        if (conn < 0) return request;
        recv(conn, &request, sizeof request, MSG_WAITALL);
        ctrlMsg_t reply = request;
        reply.replyTag = request.status;
        reply.status = kCtrlStatusOk;
        if (fill) fill(reply);
        send(conn, &reply, bytes, MSG_NOSIGNAL);
        close(conn);
        return request;
    }

private:
    int fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
};

class CtlTest : public ::testing::Test {
protected:
    TempDir dir;
    fs::path root{dir.path};

    CtlResult ctl(std::vector<std::string> args) {
        CtlProcess run(root, std::move(args));
        int code = run.wait();
        return {code, run.out(), run.err()};
    }
};

// Help; a row per place that reports a usage error; one per file or socket to reach.
TEST_F(CtlTest, HelpUsageErrorsAndUnreachableDaemonWithoutADaemon) {
    // Arguments, exit code, and text found in stdout (help) or in the one line on stderr.
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"help"}, 0, "\n  port-down PORT\n"},
        {{"--help"}, 0, "\n  port-down PORT\n"},
        {{"help", "watch"}, 0, "consumes"},
        {{"watch", "--help"}, 0, "consumes"},
        {{"help", "nothing"}, 2, "no command 'nothing'"},
        {{"get", "brand", "zz:11:22:33:44:55"}, 2, "bad MAC 'zz:11:22:33:44:55'"},
        {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
        {{"get", "brand"}, 2, "missing argument; usage: hostrixctl get brand MAC"},
        {{"get", "max-hosts", "extra"}, 2, "too many arguments"},
        {{"get", "colour", kMac}, 2, "unknown attribute 'colour'"},
        {{"set", "controlled", kMac, "2"}, 2, "bad controlled '2'"},
        {{"list", "--count", "3"}, 2, "list does not take --count"},
        {{"new", "--bogus"}, 2, "unknown option '--bogus'"},
        {{}, 2, "no command given"},
        {{"get", "max-hosts"}, 3, root.string() + "/var/run/.hostrix_msg"},
        {{"watch"}, 3, root.string() + "/var/run/.hostrix_msg"},
        {{"list"}, 3, root.string() + "/var/hostrix"},
        {{"log", "1"}, 3, root.string() + "/var/run/hostrix.fifo"},
    };
    for (const auto &[args, code, says] : cases) {
        SCOPED_TRACE(testing::PrintToString(args));
        CtlResult result = ctl(args);
        EXPECT_EQ(result.code, code) << result.err;
        const std::string &shown = code == 0 ? result.out : result.err;
        EXPECT_NE(shown.find(says), std::string::npos) << shown;
        if (code == 0) continue;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        const char *hint = code == 2 ? "; see 'hostrixctl help" : " running?";
        EXPECT_NE(result.err.find(hint), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST_F(CtlTest, ListAndGetNameReadTheHostFileUnderItsLock) {
    const lanHostInfo_t hosts[] = {host(1, "first"), host(2, "second"), host(3, "third")};
    fs::create_directories(root / "var");
    std::ofstream(root / "var/hostrix", std::ios::binary)
        << std::string(reinterpret_cast<const char *>(hosts), sizeof hosts)
        << std::string(500, 'x');  // a partial record, ignored
    CtlResult json = ctl({"list", "--json"});
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 3) << json.err;
    EXPECT_LT(json.out.find("\"first\""), json.out.find("\"third\""));
    CtlResult newest = ctl({"list", "--newest"});
    EXPECT_LT(newest.out.find("third"), newest.out.find("first")) << newest.out;

    EXPECT_EQ(ctl({"get", "name", "00-11-22-33-44-02"}).out, "second\n");
    EXPECT_EQ(ctl({"get", "name", kMac, "--json"}).out,
              "{\"mac\":\"00:11:22:33:44:01\",\"devName\":\"first\"}\n");
    CtlResult missing = ctl({"get", "name", "00:11:22:33:44:09"});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("no host 00:11:22:33:44:09"), std::string::npos) << missing.err;

    // The daemon rewrites the file under a write lock; a reader must wait for it.
    int fd = open((root / "var/hostrix").c_str(), O_RDWR);
    struct flock lock {};  // the whole file
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    CtlProcess list(root, {"list"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(list.wait(0), -1);  // still waiting
    close(fd);                    // drops the lock
    EXPECT_EQ(list.wait(), 0);
    EXPECT_NE(list.out().find(kMac), std::string::npos);
}

TEST_F(CtlTest, InformQueryAsksAgainWhileRepliesComeBackFull) {
    FakeDaemon daemon(root);
    CtlProcess run(root, {"new", "--json"});
    for (int count : {4, 1}) {  // a full reply, then the last one
        ctrlMsg_t request = daemon.serve([&](ctrlMsg_t &reply) {
            for (int i = 0; i < count; ++i) {
                lanHostInfo_t record = host(static_cast<uint8_t>(count * 10 + i), "h");
                std::memcpy(reply.data + i * kLanHostInfoSize, &record, sizeof record);
            }
        });
        EXPECT_EQ(request.cmd, CMD_GET_NEW_DEVICE);
        EXPECT_EQ(request.needReply, 1);
        EXPECT_EQ(request.status, kCtrlStatusFailed);  // so that a skipped request fails
    }
    ASSERT_EQ(run.wait(), 0) << run.err();
    std::string out = run.out();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 5);
    std::ofstream(root / "json.txt") << out;
    std::string check = "python3 -c 'import json,sys; [json.loads(l) for l in sys.stdin]' < ";
    EXPECT_EQ(std::system((check + root.string() + "/json.txt").c_str()), 0) << out;
}

TEST_F(CtlTest, RequestsCarryTheMacTextAndNumbersRepliesAreShownOrBroken) {
    FakeDaemon daemon(root);
    const std::string json = "{\"mac\":\"00:11:22:33:44:01\",\"";
    // Arguments, the request's cmd, and stdout when the daemon returns 2 and 1.
    const std::tuple<std::vector<std::string>, uint32_t, std::string> cases[] = {
        {{"set", "brand", "00:11:22:33:44:AB", std::string(70, 'b')}, CMD_SET_BRAND, ""},
        {{"set", "access", kMac, "0", "0x7"}, CMD_SET_ACCESS, ""},
        {{"port-down", "3"}, CMD_SET_LINK_CHANGE_PORT, ""},
        {{"get", "access", kMac}, CMD_GET_ACCESS, "internet=2 other=1\n"},
        {{"get", "access", kMac, "--json"},
         CMD_GET_ACCESS,
         json + "internetAccess\":2,\"otherAccess\":1}\n"},
        {{"get", "type", kMac}, CMD_GET_DEVICE_TYPE, "2\n"},
        {{"get", "type", kMac, "--json"}, CMD_GET_DEVICE_TYPE, json + "devType\":2}\n"},
    };
    const char *warning = "hostrixctl: warning: brand is 70 bytes; hostrix keeps the first 63\n";
    std::vector<ctrlMsg_t> sent;
    for (const auto &[args, cmd, out] : cases) {
        SCOPED_TRACE(testing::PrintToString(args));
        CtlProcess run(root, args);
        sent.push_back(daemon.serve([](ctrlMsg_t &reply) { reply.arg1 = 2, reply.arg2 = 1; }));
        EXPECT_EQ(run.wait(), 0) << run.err();
        EXPECT_EQ(run.out(), out);
        EXPECT_EQ(sent.back().cmd, cmd);
        EXPECT_EQ(run.err(), cmd == CMD_SET_BRAND ? warning : "");
    }
    EXPECT_EQ(sent[0].data[5], 0xab);  // the MAC, and the text cut to what the daemon keeps
    EXPECT_EQ(reinterpret_cast<const char *>(sent[0].data + kCtrlTextOffset), std::string(63, 'b'));
    EXPECT_EQ(std::make_pair(sent[1].arg1, sent[1].arg2), std::make_pair(0u, 7u));
    EXPECT_EQ(sent[2].arg1, 3u);

    // Replies cut short, missing, or with the status echoed as for a skipped request.
    const std::tuple<std::vector<std::string>, size_t, int, const char *> broken[] = {
        {{"get", "hosts"}, 100, 3, "broke off its reply after 100 of 4136"},
        {{"get", "hosts"}, 0, 3, "closed the connection without a reply"},
        {{"new"}, sizeof(ctrlMsg_t), 1, "reported failure for inform query 0x1"},
    };
    for (const auto &[args, bytes, code, says] : broken) {
        CtlProcess run(root, args);
        daemon.serve([](ctrlMsg_t &reply) { reply.status = reply.replyTag; }, bytes);
        EXPECT_EQ(run.wait(), code) << run.err();
        EXPECT_NE(run.err().find(says), std::string::npos) << run.err();
    }
}

// Handlers are in place before the first poll; SIGTERM ends the wait between polls.
TEST_F(CtlTest, WatchPollsNewLeftAndChangedUntilTerminated) {
    FakeDaemon daemon(root);
    CtlProcess watch(root, {"watch", "--interval", "0.5"});
    for (int round = 0; round < 2; ++round)
        for (uint32_t cmd : {CMD_GET_NEW_DEVICE, CMD_GET_LEAVE_DEVICE, CMD_GET_INFORM_CHANGE})
            EXPECT_EQ(daemon.serve().cmd, cmd);
    kill(watch.pid(), SIGTERM);
    EXPECT_EQ(watch.wait(), 0) << watch.err();
    EXPECT_EQ(watch.out(), "");
}

// The real daemon, with switch ids for its LAN ports, kept off the machine's own
// leases, radios and nftables.
TEST_F(CtlTest, EveryCommandRoundTripsWithTheDaemon) {
    for (const char *sub : {"etc/hostrix", "stations"}) fs::create_directories(root / sub);
    std::ofstream(root / "etc/hostrix/mib.conf")
        << "lan_ports = eth0.2\nphy.eth0.2 = 1\ncounters = off\nlease_file = " << root.string()
        << "/leases\nstations = dir:" << root.string() << "/stations\n";
    DaemonProcess daemon(root);
    daemon.start();
    ASSERT_TRUE(eventually([&] { return fs::exists(root / "var/run/hostrix.fifo"); }))
        << daemon.log();
    kill(daemon.pid(), SIGUSR2);  // rewrites the host file now
    ASSERT_TRUE(eventually([&] { return fs::exists(root / "var/hostrix"); })) << daemon.log();
    // Arguments, exit code, stdout, and text found in stderr.
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{"list"}, 0, "no hosts online\n", ""},
        {{"set", "max-hosts", "100"}, 0, "", ""},
        {{"get", "max-hosts"}, 0, "100\n", ""},
        {{"get", "max-hosts", "--json"}, 0, "{\"maxLanHostNum\":100}\n", ""},
        {{"set", "max-controlled", "0x7"}, 0, "", ""},
        {{"get", "max-controlled"}, 0, "7\n", ""},
        {{"get", "hosts"}, 0, "0\n", ""},
        {{"get", "controlled-count", "--json"}, 0, "{\"controlledNum\":0}\n", ""},
        {{"new"}, 0, "no new hosts\n", ""},
        {{"left"}, 0, "no departed hosts\n", ""},
        {{"changed"}, 0, "no changed hosts\n", ""},
        {{"set", "brand", kMac, "Acme"}, 1, "", "no host 00:11:22:33:44:01 in hostrix's table"},
        {{"get", "brand", kMac}, 1, "", "no host 00:11:22:33:44:01 in hostrix's table"},
        {{"set", "access", kMac, "2", "1"}, 0, "", ""},  // the daemon reports success anyway
        {{"release", kMac}, 0, "", ""},
        // Skipped by the daemon's printable check: the request's status (failure) comes back.
        {{"set", "access", "1c:11:22:33:44:55", "2", "1"}, 1, "", "this MAC holds 0x1c"},
        {{"port-down", "1"}, 0, "", ""},
        {{"port-down", "9"}, 1, "", "switch port id 9"},
        {{"log", "0x2"}, 0, "", ""},
    };
    for (const auto &[args, code, out, err] : cases) {
        SCOPED_TRACE(testing::PrintToString(args));
        CtlResult result = ctl(args);
        EXPECT_EQ(result.code, code) << result.err;
        EXPECT_EQ(result.out, out);
        EXPECT_NE(result.err.find(err), std::string::npos) << result.err;
    }
    EXPECT_TRUE(eventually([&] { return daemon.log().find("dbg_level=0x2") != std::string::npos; }))
        << daemon.log();
}

}  // namespace
