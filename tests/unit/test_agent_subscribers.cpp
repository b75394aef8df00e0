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
    void SetUp() override { ASSERT_TRUE(why_.empty()) << why_; }  // the hub listens
    // A subscriber that has sent REQUEST, with a receive buffer of BUFFER bytes if not 0.
    UniqueFd subscriber(std::string_view request, int buffer = 0) {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (buffer) setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
        sockaddr_un addr{AF_UNIX, {}};
        std::strcpy(addr.sun_path, path_.c_str());
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        pump();  // accepted
        EXPECT_EQ(send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL),
                  ssize_t(request.size()));
        return fd;
    }

    // One turn of the agent's loop for the hub.
    void pump(int64_t nowMono = 0) {
        std::vector<pollfd> fds;
        hub_.addPollFds(fds);
        poll(fds.data(), fds.size(), 20);
        hub_.serve(fds, 0, nowMono);
    }

    // Everything readable now; empty with closed set when the hub hung up.
    static std::string drain(const UniqueFd &fd, bool &closed) {
        std::string got;
        char chunk[65536];
        ssize_t n;
        while ((n = recv(fd.get(), chunk, sizeof chunk, MSG_DONTWAIT)) > 0) got.append(chunk, n);
        closed = n == 0;
        return got;
    }

    TempDir dir_;
    const std::string path_ = dir_.file("agent.sock");
    std::string why_;
    SubscriberHub hub_{listenUnix(path_, "", why_), [](const SubscriberRequest &r) {
                           return std::string(r.since ? "REPLAY\n" : "SNAPSHOT\n");
                       }};
};

TEST_F(HubTest, GreetsByRequestAndDropsBadSubscribers) {
    UniqueFd plain = subscriber("{}\n"), since = subscriber("{\"since\": 7}\n");
    UniqueFd garbage = subscriber("hello\n"),
             huge = subscriber(std::string(kMaxRequestLine + 1, '{'));
    UniqueFd silent = subscriber("");
    for (int i = 0; i < 4; ++i) pump();
    EXPECT_EQ(hub_.clients(), 3u);  // the garbage and the huge line are gone
    pump(kRequestWaitSeconds);       // the silent one has waited long enough
    EXPECT_EQ(hub_.clients(), 2u);
    hub_.broadcast("{\"seq\":1}");
    bool closed = false;
    EXPECT_EQ(drain(plain, closed) + drain(since, closed),
              "SNAPSHOT\n{\"seq\":1}\nREPLAY\n{\"seq\":1}\n");
    for (UniqueFd *dropped : {&garbage, &huge, &silent})
        EXPECT_TRUE(drain(*dropped, closed).empty() && closed);
}

TEST_F(HubTest, ANonReaderIsCutOffPastTheCapWhileOthersGetEverything) {
    UniqueFd reader = subscriber("{}\n"), stuck = subscriber("{}\n", 4096);
    pump();
    const std::string line(64 * 1024, 'x');
    const size_t lines = 2 * kMaxQueuedBytes / line.size();
    const size_t expected = std::string("SNAPSHOT\n").size() + lines * (line.size() + 1);
    size_t received = 0;
    bool closed = false;
    auto turn = [&] { pump(), received += drain(reader, closed).size(); };
    for (size_t i = 0; i < lines; ++i) {
        hub_.broadcast(line);
        turn();
    }
    for (int i = 0; i < 50 && received < expected; ++i) turn();
    EXPECT_EQ(received, expected);
    EXPECT_EQ(hub_.clients(), 1u);
    drain(stuck, closed);  // what it was sent before the hub hung up, then the end
    EXPECT_TRUE(closed);
}

}  // namespace
