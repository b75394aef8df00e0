// The real hostrixctl binary against a scripted control socket (exact requests, crafted
// replies) and a crafted host file. Usage errors and the real daemon are the lab's
// control test's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "control/ctrl_msg.h"
#include "core/unique_fd.h"
#include "hosts/lanhost.h"
#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

const std::string kMac = "00:11:22:33:44:01";

// The record of host 00:11:22:33:44:LAST, named NAME.
lanHostInfo_t host(uint8_t last, const char *name) {
    lanHostInfo_t record{};
    std::memcpy(record.mac, "\x00\x11\x22\x33\x44", kMacLen - 1);
    record.mac[kMacLen - 1] = last;
    std::strcpy(record.devName, name);
    return record;
}

// A stand-in for the daemon's control socket, served one connection at a time.
struct FakeDaemon {
    explicit FakeDaemon(const fs::path &root) {
        fs::create_directories(root / "var/run");
        sockaddr_un addr{AF_UNIX, {}};
        std::strncpy(addr.sun_path, (root / "var/run/.hostrix_msg").c_str(),
                     sizeof addr.sun_path - 1);
        timeval timeout{5, 0};  // bounds accept
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        EXPECT_TRUE(bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
                    listen(fd.get(), 8) == 0);
    }

    // Takes the next request (all zero if none comes) and answers as the daemon does:
    // replyTag takes the request's status, status 0, then FILL.
    ctrlMsg_t serve(const std::function<void(ctrlMsg_t &)> &fill = {}) {
        ctrlMsg_t request{};
        UniqueFd conn(accept(fd.get(), nullptr, nullptr));
        if (!conn.valid()) return request;
        recv(conn.get(), &request, sizeof request, MSG_WAITALL);
        ctrlMsg_t reply = request;
        reply.replyTag = request.status, reply.status = kCtrlStatusOk;
        if (fill) fill(reply);
        send(conn.get(), &reply, sizeof reply, MSG_NOSIGNAL);
        return request;
    }

    UniqueFd fd{socket(AF_UNIX, SOCK_STREAM, 0)};
};

class CtlTest : public ::testing::Test {
protected:
    TempDir dir;
    fs::path root{dir.path};

    // Runs the client to its end with MEANWHILE (given its pid) beside it: the exit
    // code, stdout and stderr.
    std::tuple<int, std::string, std::string> ctl(
        const std::vector<std::string> &args,
        const std::function<void(pid_t)> &meanwhile = [](pid_t) {}) {
        const std::string files = (root / "ctl").string();  // each run truncates the last's
        std::string command = "HOSTRIX_ROOT=" + root.string() + " exec " HOSTRIXCTL_BINARY;
        for (const std::string &arg : args) command += " '" + arg + "'";
        pid_t pid = fork();
        if (pid == 0) {
            alarm(20);  // ends a stuck client: the timer outlives exec
            command += " >" + files + ".out 2>" + files + ".err";
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        std::thread beside(meanwhile, pid);
        int status = 0;
        waitpid(pid, &status, 0);
        beside.join();
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                readText(files + ".out"), readText(files + ".err")};
    }
};

// The daemon rewrites the host file under a write lock: a reader waits for it.
TEST_F(CtlTest, ListAndGetNameReadTheHostFileUnderItsLock) {
    const lanHostInfo_t hosts[] = {host(1, "first"), host(2, "second"), host(3, "third")};
    EXPECT_EQ(std::get<0>(ctl({"list"})), 3);  // no file: the daemon is not running
    fs::create_directories(root / "var");
    int fd = open((root / "var/hostrix").c_str(), O_WRONLY | O_CREAT, 0644);
    struct flock lock {};  // the whole file
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    auto [code, out, err] = ctl({"list", "--json"}, [&](pid_t) {
        usleep(300000);
        EXPECT_EQ(write(fd, hosts, sizeof hosts), ssize_t{sizeof hosts});
        EXPECT_EQ(write(fd, hosts, 500), 500);  // a partial record, ignored
        close(fd);                              // drops the lock
    });
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3) << err;
    EXPECT_LT(out.find("\"first\""), out.find("\"third\""));
    std::string newest = std::get<1>(ctl({"list", "--newest"}));
    EXPECT_LT(newest.find("third"), newest.find("first")) << newest;

    EXPECT_EQ(ctl({"get", "name", "00-11-22-33-44-02"}), std::make_tuple(0, "second\n", ""));
    EXPECT_EQ(std::get<1>(ctl({"get", "name", kMac, "--json"})),
              "{\"mac\":\"00:11:22:33:44:01\",\"devName\":\"first\"}\n");
    std::tie(code, out, err) = ctl({"get", "name", "00:11:22:33:44:09"});
    EXPECT_EQ(code, 1);
    EXPECT_NE(err.find("no host 00:11:22:33:44:09"), std::string::npos) << err;
}

// Requests carry the command, MAC, text and numbers; replies are shown, or broken,
// or full of records so that the client asks again.
TEST_F(CtlTest, RequestsAndRepliesAgainstAScriptedSocket) {
    FakeDaemon daemon(root);
    std::vector<ctrlMsg_t> sent;
    auto [code, out, err] = ctl({"new", "--json"}, [&](pid_t) {
        for (int count : {4, 3})  // a full reply, then the last one
            sent.push_back(daemon.serve([&](ctrlMsg_t &reply) {
                for (int i = 0; i < count; ++i)  // records of hosts 00:00:00:00:00:NN
                    reply.data[i * kLanHostInfoSize + kMacLen - 1] =
                        static_cast<uint8_t>(count * 10 + i);
            }));
    });
    EXPECT_EQ(std::tuple(code, std::count(out.begin(), out.end(), '\n')), std::tuple(0, 7)) << err;
    for (const ctrlMsg_t &request : sent)  // a failure status, so that a skipped request fails
        EXPECT_EQ(std::tie(request.cmd, request.needReply, request.status),
                  std::make_tuple(CMD_GET_NEW_DEVICE, 1u, kCtrlStatusFailed));

    sent.clear();
    const std::string json = "{\"mac\":\"00:11:22:33:44:01\",\"";
    // Arguments, the request's cmd, and stdout when the daemon returns 2, 1 and "Acme" with
    // an ESC sequence, a backslash and a byte from 0x80 up.
    const std::tuple<std::vector<std::string>, uint32_t, std::string> cases[] = {
        {{"set", "brand", "00:11:22:33:44:AB", std::string(70, 'b')}, CMD_SET_BRAND, ""},
        {{"set", "brand", kMac, std::string(63, 'b')}, CMD_SET_BRAND, ""},  // kept whole
        {{"set", "access", kMac, "0", "0x7"}, CMD_SET_ACCESS, ""},
        {{"port-down", "3"}, CMD_SET_LINK_CHANGE_PORT, ""},
        {{"get", "access", kMac, "--json"}, CMD_GET_ACCESS,
         json + "internetAccess\":2,\"otherAccess\":1}\n"},
        {{"get", "type", kMac}, CMD_GET_DEVICE_TYPE, "2\n"},
        {{"get", "model", kMac}, CMD_GET_MODEL, "Acme\\x1b[2J\\\\\\xc3\n"},
        {{"get", "model", kMac, "--json"}, CMD_GET_MODEL,
         json + "model\":\"Acme\\u001b[2J\\\\\\u00c3\"}\n"},
    };
    const char *warning = "hostrixctl: warning: brand is 70 bytes; hostrix keeps the first 63\n";
    for (const auto &[args, cmd, shown] : cases) {
        SCOPED_TRACE(testing::PrintToString(args));
        std::tie(code, out, err) = ctl(args, [&](pid_t) {
            sent.push_back(daemon.serve([](ctrlMsg_t &reply) {
                reply.arg1 = 2, reply.arg2 = 1;
                std::strcpy(reinterpret_cast<char *>(reply.data + kCtrlTextOffset),
                            "Acme\x1b[2J\\\xc3");
            }));
        });
        EXPECT_EQ(std::tie(code, out), std::make_tuple(0, shown)) << err;
        EXPECT_EQ(sent.back().cmd, cmd);
        EXPECT_EQ(err, args.back().size() == 70 ? warning : "");
    }
    EXPECT_EQ(sent[0].data[5], 0xab);
    EXPECT_EQ(std::tie(sent[2].arg1, sent[2].arg2, sent[3].arg1), std::make_tuple(0u, 7u, 3u));

    // watch has its handlers in place before the first poll; SIGTERM ends it between polls.
    std::tie(code, out, err) = ctl({"watch", "--interval", "0.5"}, [&](pid_t watch) {
        for (int round = 0; round < 2; ++round)
            for (uint32_t cmd : {CMD_GET_NEW_DEVICE, CMD_GET_LEAVE_DEVICE, CMD_GET_INFORM_CHANGE})
                EXPECT_EQ(daemon.serve().cmd, cmd);
        kill(watch, SIGTERM);
    });
    EXPECT_EQ(std::tie(code, out), std::make_tuple(0, "")) << err;
}

}  // namespace
