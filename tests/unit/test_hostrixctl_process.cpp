// The real hostrixctl binary: against a scripted control socket (exact requests,
// crafted replies), a crafted host file, no daemon at all, and the real daemon.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "control/ctrl_msg.h"
#include "daemon_process.h"
#include "hosts/lanhost.h"
#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

constexpr int kCtlTimeoutMs = 15000;

// One run of the client with HOSTRIX_ROOT set; output captured in files.
class CtlProcess {
public:
    CtlProcess(const fs::path &root, std::vector<std::string> args) : root_(root) {
        static std::atomic<int> serial{0};
        std::string tag = std::to_string(serial++);
        outPath_ = root / ("ctl." + tag + ".out");
        errPath_ = root / ("ctl." + tag + ".err");
        args.insert(args.begin(), HOSTRIXCTL_BINARY);
        pid_ = fork();
        if (pid_ == 0) exec(args);
    }
    ~CtlProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    CtlProcess(const CtlProcess &) = delete;
    CtlProcess &operator=(const CtlProcess &) = delete;

    // Exit code, or -1 if it has not ended within TIMEOUT_MS (the destructor kills it).
    int wait(int timeoutMs = kCtlTimeoutMs) {
        for (int waited = 0; running(); waited += 10) {
            if (waited >= timeoutMs) return -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return code_;
    }
    // Reaps the process once it has ended, keeping its exit code.
    bool running() {
        int status = 0;
        if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) != pid_) return pid_ > 0;
        pid_ = -1;
        code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    // Whether it has installed a handler for SIGNO yet (the SigCgt mask in /proc).
    bool catches(int signo) const {
        std::string status = readText("/proc/" + std::to_string(pid_) + "/status");
        size_t at = status.find("SigCgt:");
        if (at == std::string::npos) return false;
        uint64_t mask = std::stoull(status.substr(at + 7), nullptr, 16);
        return (mask >> (signo - 1)) & 1u;
    }
    void signal(int signo) const { kill(pid_, signo); }
    std::string out() const { return readText(outPath_); }
    std::string err() const { return readText(errPath_); }

private:
    void exec(std::vector<std::string> &args) const {
        setenv("HOSTRIX_ROOT", root_.c_str(), 1);
        int out = open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        std::vector<char *> argv;
        for (std::string &arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }

    fs::path root_;
    fs::path outPath_;
    fs::path errPath_;
    pid_t pid_ = -1;
    int code_ = -1;
};

struct CtlResult {
    int code;
    std::string out;
    std::string err;
};

CtlResult runCtl(const fs::path &root, std::vector<std::string> args) {
    CtlProcess ctl(root, std::move(args));
    int code = ctl.wait();
    return {code, ctl.out(), ctl.err()};
}

size_t lineCount(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// Every non-empty line must parse as JSON (checked by python3's parser).
bool jsonLinesParse(const fs::path &dir, const std::string &text) {
    fs::path file = dir / "json.txt";
    std::ofstream(file) << text;
    std::string command =
        "python3 -c 'import json,sys; [json.loads(l) for l in sys.stdin if l.strip()]' < " +
        file.string();
    return std::system(command.c_str()) == 0;
}

lanHostInfo_t host(uint8_t last, const char *name) {
    lanHostInfo_t record{};
    const uint8_t mac[kMacLen] = {0x00, 0x11, 0x22, 0x33, 0x44, last};
    std::memcpy(record.mac, mac, kMacLen);
    std::strcpy(record.devName, name);
    std::strcpy(record.ifName, "eth0.2");
    record.ip = htonl(0x0a4d0000u + last);
    record.port = 1;
    return record;
}

std::string macOf(uint8_t last) {
    char text[18];
    std::snprintf(text, sizeof text, "00:11:22:33:44:%02x", last);
    return text;
}

// A stand-in for the daemon's control socket: each connection's request is kept
// and answered with whatever RESPOND returns (nothing: close without a reply).
class ScriptedSocket {
public:
    using Responder = std::function<std::optional<std::string>(const ctrlMsg_t &)>;

    ScriptedSocket(const fs::path &root, Responder respond) : respond_(std::move(respond)) {
        fs::create_directories(root / "var/run");
        std::string path = (root / "var/run/.hostrix_msg").string();
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        listenFd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(bind(listenFd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(listen(listenFd_, 8), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedSocket() {
        shutdown(listenFd_, SHUT_RDWR);  // wakes accept
        thread_.join();
        close(listenFd_);
    }

    std::vector<ctrlMsg_t> requests() {
        std::lock_guard<std::mutex> guard(mutex_);
        return requests_;
    }

    static std::string bytesOf(const ctrlMsg_t &msg) {
        return std::string(reinterpret_cast<const char *>(&msg), sizeof msg);
    }

private:
    void serve() {
        for (;;) {
            int conn = accept(listenFd_, nullptr, nullptr);
            if (conn < 0) return;
            ctrlMsg_t request{};
            auto *bytes = reinterpret_cast<char *>(&request);
            size_t got = 0;
            for (ssize_t n; got < sizeof request &&
                            (n = recv(conn, bytes + got, sizeof request - got, 0)) > 0;)
                got += static_cast<size_t>(n);
            {
                std::lock_guard<std::mutex> guard(mutex_);
                requests_.push_back(request);
            }
            if (std::optional<std::string> reply = respond_(request))
                send(conn, reply->data(), reply->size(), MSG_NOSIGNAL);
            close(conn);
        }
    }

    Responder respond_;
    int listenFd_ = -1;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<ctrlMsg_t> requests_;
};

// The reply the daemon would give: the request with replyTag, status and results.
ctrlMsg_t answer(const ctrlMsg_t &request, uint64_t status) {
    ctrlMsg_t reply = request;
    reply.replyTag = request.status;
    reply.status = status;
    return reply;
}

class CtlTest : public ::testing::Test {
protected:
    TempDir dir;
    fs::path root{dir.path};

    CtlResult ctl(std::vector<std::string> args) { return runCtl(root, std::move(args)); }

    void writeHostFile(const std::vector<lanHostInfo_t> &hosts, size_t extraBytes = 0) {
        fs::create_directories(root / "var");
        std::string bytes(reinterpret_cast<const char *>(hosts.data()),
                          hosts.size() * sizeof(lanHostInfo_t));
        std::ofstream(root / "var/hostrix", std::ios::binary)
            << bytes << std::string(extraBytes, 'x');
    }
};

TEST_F(CtlTest, UsageErrorsExitTwoWithOneLineNamingTheProblem) {
    struct Case {
        std::vector<std::string> args;
        const char *says;
    };
    const Case cases[] = {
        {{"get", "brand", "zz:11:22:33:44:55"}, "bad MAC 'zz:11:22:33:44:55'"},
        {{"set", "brand", "00:11:22:33:44"}, "missing argument"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"get", "brand"}, "missing argument; usage: hostrixctl get brand MAC"},
        {{"get", "max-hosts", "extra"}, "too many arguments"},
        {{"get", "colour", "00:11:22:33:44:55"}, "unknown attribute 'colour'"},
        {{"set", "max-hosts", "257"}, "bad max-hosts '257'"},
        {{"set", "controlled", "00:11:22:33:44:55", "2"}, "bad controlled '2'"},
        {{"set", "access", "00:11:22:33:44:55", "2"}, "missing argument"},
        {{"port-down", "256"}, "bad PORT '256'"},
        {{"log", "loud"}, "bad LEVEL 'loud'"},
        {{"list", "--count", "3"}, "list does not take --count"},
        {{"watch", "--interval", "0"}, "--interval needs seconds"},
        {{"new", "--bogus"}, "unknown option '--bogus'"},
        {{}, "no command given"},
    };
    for (const Case &c : cases) {
        CtlResult result = ctl(c.args);
        std::string shown = c.args.empty() ? "(none)" : c.args[0];
        EXPECT_EQ(result.code, 2) << shown;
        EXPECT_EQ(lineCount(result.err), 1u) << result.err;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("see 'hostrixctl help"), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "") << shown;
    }
}

TEST_F(CtlTest, WithoutADaemonEveryCommandExitsThreeNamingWhatItTried) {
    struct Case {
        std::vector<std::string> args;
        const char *path;
    };
    const Case cases[] = {
        {{"new"}, "/var/run/.hostrix_msg"},
        {{"get", "max-hosts"}, "/var/run/.hostrix_msg"},
        {{"set", "brand", macOf(1), "x"}, "/var/run/.hostrix_msg"},
        {{"watch"}, "/var/run/.hostrix_msg"},
        {{"list"}, "/var/hostrix"},
        {{"get", "name", macOf(1)}, "/var/hostrix"},
        {{"log", "1"}, "/var/run/hostrix.fifo"},
    };
    for (const Case &c : cases) {
        CtlResult result = ctl(c.args);
        EXPECT_EQ(result.code, 3) << c.args[0];
        EXPECT_NE(result.err.find(root.string() + c.path), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("running?"), std::string::npos) << result.err;
        EXPECT_EQ(lineCount(result.err), 1u) << result.err;
    }
}

TEST_F(CtlTest, HelpForEveryCommandAndTheOverview) {
    for (std::vector<std::string> args : {std::vector<std::string>{"help"}, {"--help"}}) {
        CtlResult result = ctl(args);
        EXPECT_EQ(result.code, 0);
        for (const char *name : {"new", "left", "changed", "list", "watch", "get", "set",
                                 "port-down", "release", "log"})
            EXPECT_NE(result.out.find(std::string("  ") + name), std::string::npos) << name;
    }
    CtlResult watch = ctl({"watch", "--help"});
    EXPECT_EQ(watch.code, 0);
    EXPECT_NE(watch.out.find("consumes"), std::string::npos);
    EXPECT_EQ(ctl({"help", "watch"}).out, watch.out);
    EXPECT_EQ(ctl({"help", "nothing"}).code, 2);
}

TEST_F(CtlTest, ListShowsTheHostFileInFileOrderOrNewestFirst) {
    writeHostFile({host(1, "first"), host(2, "second"), host(3, "third")}, 500);
    CtlResult json = ctl({"list", "--json"});
    ASSERT_EQ(json.code, 0) << json.err;
    EXPECT_EQ(lineCount(json.out), 3u);  // the partial record is ignored
    EXPECT_TRUE(jsonLinesParse(root, json.out)) << json.out;
    EXPECT_LT(json.out.find("\"first\""), json.out.find("\"third\""));

    CtlResult newest = ctl({"list", "--newest"});
    ASSERT_EQ(newest.code, 0) << newest.err;
    EXPECT_EQ(newest.out.rfind("MAC", 0), 0u);
    EXPECT_LT(newest.out.find("third"), newest.out.find("first"));
    EXPECT_NE(newest.out.find("10.77.0.2"), std::string::npos);

    writeHostFile({});
    CtlResult empty = ctl({"list"});
    EXPECT_EQ(empty.code, 0);
    EXPECT_EQ(empty.out, "no hosts online\n");
}

TEST_F(CtlTest, GetNameReadsTheHostFile) {
    writeHostFile({host(1, "printer"), host(2, "tv")});
    CtlResult name = ctl({"get", "name", "00-11-22-33-44-02"});
    EXPECT_EQ(name.code, 0) << name.err;
    EXPECT_EQ(name.out, "tv\n");
    CtlResult json = ctl({"get", "name", macOf(1), "--json"});
    EXPECT_EQ(json.out, "{\"mac\":\"00:11:22:33:44:01\",\"devName\":\"printer\"}\n");
    CtlResult missing = ctl({"get", "name", macOf(9)});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("no host 00:11:22:33:44:09"), std::string::npos) << missing.err;
}

// The daemon rewrites the file under a write lock; a reader must wait for it.
TEST_F(CtlTest, ListWaitsWhileTheFileIsLocked) {
    writeHostFile({host(1, "a")});
    int fd = open((root / "var/hostrix").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    CtlProcess list(root, {"list"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(list.running());
    lock.l_type = F_UNLCK;
    fcntl(fd, F_SETLK, &lock);
    close(fd);
    EXPECT_EQ(list.wait(), 0);
    EXPECT_NE(list.out().find("00:11:22:33:44:01"), std::string::npos);
}

TEST_F(CtlTest, InformQueryAsksAgainWhileRepliesComeBackFull) {
    std::atomic<int> round{0};
    ScriptedSocket daemon(root, [&](const ctrlMsg_t &request) -> std::optional<std::string> {
        ctrlMsg_t reply = answer(request, kCtrlStatusOk);
        int count = round++ == 0 ? 4 : 1;  // four, then one: two requests in all
        for (int i = 0; i < count; ++i) {
            lanHostInfo_t record = host(static_cast<uint8_t>(round * 10 + i), "h");
            std::memcpy(reply.data + i * kLanHostInfoSize, &record, sizeof record);
        }
        return ScriptedSocket::bytesOf(reply);
    });
    CtlResult result = ctl({"new", "--json"});
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(lineCount(result.out), 5u);
    EXPECT_TRUE(jsonLinesParse(root, result.out)) << result.out;
    std::vector<ctrlMsg_t> requests = daemon.requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const ctrlMsg_t &request : requests) {
        EXPECT_EQ(request.cmd, CMD_GET_NEW_DEVICE);
        EXPECT_EQ(request.needReply, 1);
        EXPECT_EQ(request.status, kCtrlStatusFailed);
    }
}

TEST_F(CtlTest, PerHostRequestsCarryTheMacTextAndNumbers) {
    ScriptedSocket daemon(root, [](const ctrlMsg_t &request) -> std::optional<std::string> {
        ctrlMsg_t reply = answer(request, kCtrlStatusOk);
        reply.arg1 = 2;
        reply.arg2 = 1;
        return ScriptedSocket::bytesOf(reply);
    });
    CtlResult brand = ctl({"set", "brand", "00:11:22:33:44:AB", std::string(70, 'b')});
    EXPECT_EQ(brand.code, 0) << brand.err;
    EXPECT_NE(brand.err.find("keeps the first 63"), std::string::npos) << brand.err;
    CtlResult access = ctl({"set", "access", macOf(1), "0", "0x7"});
    EXPECT_EQ(access.code, 0) << access.err;
    CtlResult get = ctl({"get", "access", macOf(1)});
    EXPECT_EQ(get.out, "internet=2 other=1\n");
    CtlResult json = ctl({"get", "access", macOf(1), "--json"});
    EXPECT_EQ(json.out, "{\"mac\":\"00:11:22:33:44:01\",\"internetAccess\":2,\"otherAccess\":1}\n");
    EXPECT_EQ(ctl({"port-down", "3"}).code, 0);

    std::vector<ctrlMsg_t> sent = daemon.requests();
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent[0].cmd, CMD_SET_BRAND);
    EXPECT_EQ(sent[0].data[5], 0xab);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(sent[0].data + kCtrlTextOffset)),
              std::string(63, 'b'));
    EXPECT_EQ(sent[1].cmd, CMD_SET_ACCESS);
    EXPECT_EQ(sent[1].arg1, 0u);
    EXPECT_EQ(sent[1].arg2, 7u);
    EXPECT_EQ(sent[2].cmd, CMD_GET_ACCESS);
    EXPECT_EQ(sent[4].cmd, CMD_SET_LINK_CHANGE_PORT);
    EXPECT_EQ(sent[4].arg1, 3u);
}

TEST_F(CtlTest, FailuresSkippedRequestsAndBrokenRepliesGetTheirOwnExitCodes) {
    ScriptedSocket daemon(root, [](const ctrlMsg_t &request) -> std::optional<std::string> {
        if (request.cmd == CMD_GET_MAX_HOSTS) return std::string(100, '\0');  // cut short
        if (request.cmd == CMD_GET_HOST_NUM) return std::nullopt;             // no reply
        // A skipped request comes back with status as sent; a failed one says 1 too.
        return ScriptedSocket::bytesOf(answer(request, request.status));
    });
    CtlResult missing = ctl({"get", "brand", macOf(1)});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(
        missing.err.find("no host 00:11:22:33:44:01 in hostrix's table; see 'hostrixctl list'"),
        std::string::npos)
        << missing.err;
    CtlResult skipped = ctl({"set", "type", "1c:11:22:33:44:55", "3"});
    EXPECT_EQ(skipped.code, 1);
    EXPECT_NE(skipped.err.find("ignored the request"), std::string::npos) << skipped.err;
    EXPECT_NE(skipped.err.find("0x1c"), std::string::npos) << skipped.err;
    CtlResult cut = ctl({"get", "max-hosts"});
    EXPECT_EQ(cut.code, 3);
    EXPECT_NE(cut.err.find("after 100 of 4136 bytes"), std::string::npos) << cut.err;
    EXPECT_EQ(ctl({"get", "hosts"}).code, 3);
}

// A mib.conf that gives the LAN ports switch ids and keeps the daemon off the
// machine's own leases, radios and nftables.
void writeConfig(const fs::path &root) {
    fs::create_directories(root / "etc/hostrix");
    fs::create_directories(root / "stations");
    std::ofstream(root / "etc/hostrix/mib.conf")
        << "lan_ports = eth0.2 eth0.3 eth0.4 eth0.5\n"
        << "phy.eth0.2 = 1\nphy.eth0.3 = 2\nphy.eth0.4 = 3\nphy.eth0.5 = 4\n"
        << "lease_file = " << (root / "leases").string() << "\n"
        << "stations = dir:" << (root / "stations").string() << "\n"
        << "counters = off\n";
}

class CtlDaemonTest : public CtlTest {
protected:
    void SetUp() override {
        writeConfig(root);
        daemon.start();
        ASSERT_TRUE(eventually([&] { return fs::exists(root / "var/run/hostrix.fifo"); }))
            << daemon.log();
    }
    DaemonProcess daemon{root};
};

TEST_F(CtlDaemonTest, LimitsAndCountsRoundTrip) {
    EXPECT_EQ(ctl({"set", "max-hosts", "100"}).code, 0);
    EXPECT_EQ(ctl({"get", "max-hosts"}).out, "100\n");
    EXPECT_EQ(ctl({"set", "max-controlled", "0x7"}).code, 0);
    EXPECT_EQ(ctl({"get", "max-controlled"}).out, "7\n");
    EXPECT_EQ(ctl({"get", "hosts"}).out, "0\n");
    CtlResult count = ctl({"get", "controlled-count", "--json"});
    EXPECT_EQ(count.code, 0) << count.err;
    EXPECT_EQ(count.out, "{\"controlledNum\":0}\n");
    EXPECT_EQ(ctl({"get", "max-hosts", "--json"}).out, "{\"maxLanHostNum\":100}\n");
}

TEST_F(CtlDaemonTest, InformQueriesOnAnEmptyTableReportNothing) {
    struct Case {
        const char *command;
        const char *note;
    };
    for (const Case &c : {Case{"new", "no new hosts\n"}, Case{"left", "no departed hosts\n"},
                          Case{"changed", "no changed hosts\n"}}) {
        CtlResult table = ctl({c.command});
        EXPECT_EQ(table.code, 0) << c.command << ": " << table.err;
        EXPECT_EQ(table.out, c.note);
        CtlResult json = ctl({c.command, "--json"});
        EXPECT_EQ(json.code, 0) << json.err;
        EXPECT_EQ(json.out, "");
    }
}

TEST_F(CtlDaemonTest, PerHostCommandsOnAnUnknownHost) {
    struct Case {
        std::vector<std::string> args;
        int code;
        const char *says;
    };
    const char *missing = "no host 00:11:22:33:44:01";
    const Case cases[] = {
        {{"set", "brand", macOf(1), "Acme"}, 1, missing},
        {{"get", "brand", macOf(1)}, 1, missing},
        {{"set", "model", macOf(1), "X1"}, 1, missing},
        {{"get", "os", macOf(1)}, 1, missing},
        {{"set", "name", macOf(1), "tv"}, 1, missing},
        {{"set", "type", macOf(1), "3"}, 1, missing},
        {{"get", "type", macOf(1)}, 1, missing},
        {{"set", "controlled", macOf(1), "1"}, 1, missing},
        {{"get", "controlled", macOf(1)}, 1, missing},
        {{"get", "access", macOf(1)}, 1, missing},
        {{"set", "access", macOf(1), "2", "1"}, 0, ""},  // the daemon reports success anyway
        {{"release", macOf(1)}, 0, ""},
        // Skipped by the daemon's printable check: the request's status (failure) comes back.
        {{"set", "access", "1c:11:22:33:44:55", "2", "1"}, 1, "ignored the request"},
    };
    for (const Case &c : cases) {
        CtlResult result = ctl(c.args);
        EXPECT_EQ(result.code, c.code) << c.args[0] << " " << c.args[1] << ": " << result.err;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
    }
}

TEST_F(CtlDaemonTest, PortDownNeedsAConfiguredPortAndLogReachesTheFifo) {
    EXPECT_EQ(ctl({"port-down", "1"}).code, 0);
    CtlResult unknown = ctl({"port-down", "9"});
    EXPECT_EQ(unknown.code, 1);
    EXPECT_NE(unknown.err.find("switch port id 9"), std::string::npos) << unknown.err;
    EXPECT_EQ(ctl({"log", "0x2"}).code, 0);
    EXPECT_TRUE(eventually([&] { return daemon.log().find("dbg_level=0x2") != std::string::npos; }))
        << daemon.log();
}

TEST_F(CtlDaemonTest, ListReadsTheFileTheDaemonWrites) {
    kill(daemon.pid(), SIGUSR2);  // rewrites the host file now
    ASSERT_TRUE(eventually([&] { return fs::exists(root / "var/hostrix"); })) << daemon.log();
    CtlResult list = ctl({"list"});
    EXPECT_EQ(list.code, 0) << list.err;
    EXPECT_EQ(list.out, "no hosts online\n");
}

TEST_F(CtlDaemonTest, WatchRunsUntilTerminatedAndEndsWhenTheDaemonGoes) {
    CtlProcess quiet(root, {"watch", "--interval", "0.1"});
    ASSERT_TRUE(eventually([&] { return quiet.catches(SIGTERM); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a few polls
    ASSERT_TRUE(quiet.running()) << quiet.err();
    quiet.signal(SIGTERM);
    EXPECT_EQ(quiet.wait(), 0) << quiet.err();
    EXPECT_EQ(quiet.out(), "");

    CtlProcess orphan(root, {"watch", "--json", "--interval", "0.1"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(daemon.pid(), SIGTERM);
    EXPECT_EQ(daemon.waitExit(), 0);
    EXPECT_EQ(orphan.wait(5000), 3);
    EXPECT_NE(orphan.err().find("cannot reach hostrix"), std::string::npos) << orphan.err();
}

}  // namespace
