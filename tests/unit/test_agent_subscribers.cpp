// The subscriber hub over real UNIX sockets in a temporary directory: who is served,
// who is dropped, and that one who stops reading does not hold the others back.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "subscribers.h"
#include "temp_dir.h"

namespace {

class HubTest : public testing::Test {
protected:
    void SetUp() override {
        std::string why;
        UniqueFd listener = listenUnix(path_, "", why);
        ASSERT_TRUE(listener.valid()) << why;
        hub_ = std::make_unique<SubscriberHub>(std::move(listener), [](const SubscriberRequest &r) {
            return std::string(r.since ? "REPLAY\n" : "SNAPSHOT\n");
        });
    }
    UniqueFd connectClient(int receiveBuffer = 0) {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (receiveBuffer) setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, path_.c_str());
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        pump();  // accepted
        return fd;
    }

    // One turn of the agent's loop for the hub.
    void pump(int64_t nowMono = 0) {
        std::vector<pollfd> fds;
        hub_->addPollFds(fds);
        poll(fds.data(), fds.size(), 20);
        hub_->serve(fds, 0, nowMono);
    }

    static void say(const UniqueFd &fd, std::string_view text) {
        ASSERT_EQ(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    // Everything readable now; empty with closed set when the hub hung up.
    static std::string drain(const UniqueFd &fd, bool &closed) {
        std::string got;
        char chunk[65536];
        closed = false;
        for (;;) {
            ssize_t n = recv(fd.get(), chunk, sizeof chunk, MSG_DONTWAIT);
            if (n == 0) closed = true;
            if (n <= 0) return got;
            got.append(chunk, static_cast<size_t>(n));
        }
    }

    TempDir dir_;
    const std::string path_ = dir_.file("agent.sock");
    std::unique_ptr<SubscriberHub> hub_;
};

TEST_F(HubTest, GreetsByRequestAndDropsBadSubscribers) {
    UniqueFd plain = connectClient(), since = connectClient(), garbage = connectClient();
    UniqueFd huge = connectClient(), silent = connectClient();
    say(plain, "{}\n");
    say(since, "{\"since\": 7}\n");
    say(garbage, "hello\n");
    say(huge, std::string(kMaxRequestLine + 1, '{'));
    for (int i = 0; i < 4; ++i) pump();
    EXPECT_EQ(hub_->clients(), 3u);  // the garbage and the huge line are gone
    pump(kRequestWaitSeconds);       // the silent one has waited long enough
    EXPECT_EQ(hub_->clients(), 2u);
    hub_->broadcast("{\"seq\":1}");
    bool closed = false;
    EXPECT_EQ(drain(plain, closed) + drain(since, closed),
              "SNAPSHOT\n{\"seq\":1}\nREPLAY\n{\"seq\":1}\n");
    for (UniqueFd *dropped : {&garbage, &huge, &silent})
        EXPECT_TRUE(drain(*dropped, closed).empty() && closed);
}

TEST_F(HubTest, ANonReaderIsCutOffPastTheCapWhileOthersGetEverything) {
    UniqueFd reader = connectClient(), stuck = connectClient(4096);
    say(reader, "{}\n");
    say(stuck, "{}\n");
    pump();
    const std::string line(64 * 1024, 'x');
    const size_t lines = 2 * kMaxQueuedBytes / line.size();
    size_t received = 0;
    bool closed = false;
    for (size_t i = 0; i < lines; ++i) {
        hub_->broadcast(line);
        pump();
        received += drain(reader, closed).size();
    }
    for (int i = 0; i < 50 && received < lines * (line.size() + 1) + 9; ++i) {
        pump();
        received += drain(reader, closed).size();
    }
    EXPECT_EQ(received, std::string("SNAPSHOT\n").size() + lines * (line.size() + 1));
    EXPECT_EQ(hub_->clients(), 1u);
    drain(stuck, closed);
    for (int i = 0; i < 10 && !closed; ++i) drain(stuck, closed);
    EXPECT_TRUE(closed);
}

}  // namespace
