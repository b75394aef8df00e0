// The control socket and its dispatcher: a real socket in a temporary root, the client
// on the test's side, msg_process_sockfd serving one connection.
#include "control/ctrl_socket.h"
#include "core/clock.h"
#include "ctrl_request.h"
#include "hosts/liveness.h"
#include "root_fixture.h"

namespace {

struct CtrlSocketTest : RootedTest {
    void SetUp() override {
        RootedTest::SetUp();
        ASSERT_GE(msg_create_sockfd(), 0);
    }
    void TearDown() override {
        msg_close_sockfd();
        RootedTest::TearDown();
    }

    static UniqueFd connectClient() { return connectTo(hostrixPath(HostrixFile::ControlSocket)); }

    // Sends the first SIZE bytes of MSG, lets the daemon serve them and returns
    // what the client receives up to end of file.
    static std::string exchange(const ctrlMsg_t &msg, size_t size = sizeof(ctrlMsg_t)) {
        UniqueFd client = connectClient();
        EXPECT_EQ(send(client.get(), &msg, size, 0), static_cast<ssize_t>(size));
        EXPECT_EQ(msg_process_sockfd(msgSockFd()), 0);
        return receiveAll(client.get());
    }

    static std::string receiveAll(int fd) {
        std::string bytes;
        char buffer[kCtrlMsgSize];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            bytes.append(buffer, n);
        return bytes;
    }
};

// The missing bytes of a short request are zero: with needReply among them, no reply;
// a query without a reply still consumes what it reports.
TEST_F(CtrlSocketTest, ShortRequestsAndNoReplyRequestsAreServedAsSent) {
    hostEntry *host = addHost(checkedMac(1));
    host->lanHost.firstConnect = 1;
    ctrlMsg_t msg = ctrlRequest(CMD_GET_HOST_NUM);
    msg.status = 7;
    std::memset(msg.data, 'x', sizeof msg.data);  // never sent
    std::string reply = exchange(msg, offsetof(ctrlMsg_t, data));
    ASSERT_EQ(reply.size(), kCtrlMsgSize);
    ctrlMsg_t got;
    std::memcpy(&got, reply.data(), sizeof got);
    EXPECT_EQ(std::tuple(got.replyTag, got.arg1), std::tuple(7u, 1u));
    EXPECT_TRUE(allZero(got.data, sizeof got.data));
    EXPECT_EQ(exchange(ctrlRequest(CMD_GET_MAX_HOSTS), offsetof(ctrlMsg_t, needReply)), "");
    ctrlMsg_t query = ctrlRequest(CMD_GET_NEW_DEVICE);
    query.needReply = 0;
    EXPECT_EQ(exchange(query), "");
    EXPECT_EQ(host->lanHost.firstConnect, 0);
}

// A client that says nothing waits aside: others are served meanwhile, it is served
// once it speaks, dropped after a second, and the oldest gives way when all wait.
TEST_F(CtrlSocketTest, SilentClientsWaitAsideWithoutHoldingOthers) {
    EXPECT_EQ(msg_process_sockfd(msgSockFd()), 0);  // nothing pending: returns at once
    UniqueFd late = connectClient();
    EXPECT_EQ(msg_process_sockfd(msgSockFd()), 0);
    EXPECT_EQ(ctrlWaitingCount(), 1u);
    EXPECT_EQ(exchange(ctrlRequest(CMD_GET_MAX_HOSTS)).size(), kCtrlMsgSize);
    ctrlMsg_t msg = ctrlRequest(CMD_GET_MAX_HOSTS);
    ASSERT_EQ(send(late.get(), &msg, sizeof msg, 0), static_cast<ssize_t>(sizeof msg));
    fd_set set{};
    int highest = 0;
    ctrlWaitingAddToSet(set, highest);
    ctrlServeWaiting(set);
    EXPECT_EQ(receiveAll(late.get()).size(), kCtrlMsgSize);
    EXPECT_EQ(ctrlWaitingCount(), 0u);

    std::vector<UniqueFd> silent;
    for (size_t i = 0; i <= kMaxWaitingConns; ++i) {
        fake::advanceSeconds(1);  // each waits from its own time
        silent.push_back(connectClient());
        msg_process_sockfd(msgSockFd());
    }
    EXPECT_EQ(ctrlWaitingCount(), kMaxWaitingConns);
    char byte;
    EXPECT_EQ(recv(silent.front().get(), &byte, 1, MSG_DONTWAIT), 0);  // the oldest, closed
    ctrlDropStaleWaiting(monotonicMilliseconds() + kConnWaitMs);
    EXPECT_EQ(ctrlWaitingCount(), 0u);
    EXPECT_EQ(recv(silent.back().get(), &byte, 1, MSG_DONTWAIT), 0);
}

// The text after the MAC is checked, never the MAC: any MAC can be reached.
TEST_F(CtrlSocketTest, HandlerRunsOnlyWhenTheTextAfterTheMacIsPrintable) {
    const std::tuple<fake::Mac, std::string, bool> cases[] = {
        {fake::mac(0xa4, 0x83, 0xe7, 0x12, 0x34, 0x56), "", true},
        {fake::mac(0x1c, 0x7f, 2, 3, 4, 5), "name", true},
        {fake::mac(0x0a, 1, 2, 3, 4, 5), "ab\x1b[2J", false},
        {fake::mac(0x0a, 1, 2, 3, 4, 6), "ab\xa4", false},  // compared as signed
        {fake::mac(0x0a, 1, 2, 3, 4, 7), "ab\r\x01", true}};
    for (const auto &[mac, text, runs] : cases) {
        hostEntry *host = addHost(mac);
        const ctrlMsg_t msg = dispatched(ctrlRequest(CMD_SET_DEVICE_TYPE, mac, 9, 0, text), 5);
        EXPECT_EQ(std::tuple(msg.status, host->lanHost.devType),
                  std::tuple(runs ? kCtrlStatusOk : 5u, runs ? 9 : 0))
            << text;
    }
}

// What the client left in data goes; departures follow the arrivals at the offset the
// first handler reached. Handlers run in table order: the name setter before the change
// query, which then reports the host the new name flagged.
TEST_F(CtrlSocketTest, InformQueriesWipeDataAndAppendInTurn) {
    const ctrlMsg_t empty =
        dispatched(ctrlRequest(CMD_GET_NEW_DEVICE, checkedMac(1), 0, 0, "leftover text"));
    EXPECT_TRUE(allZero(empty.data, sizeof empty.data));
    addHost(localMac(1))->lanHost.firstConnect = 1;
    _disConnLanHost(addHost(checkedMac(2)), "test", __LINE__);
    const ctrlMsg_t msg = dispatched(ctrlRequest(CMD_GET_NEW_DEVICE | CMD_GET_LEAVE_DEVICE));
    EXPECT_EQ(std::pair(recordMac(msg, 0), recordMac(msg, 1)),
              std::pair(localMac(1), checkedMac(2)));
    EXPECT_TRUE(allZero(msg.data + 2 * kLanHostInfoSize, kCtrlDataSize - 2 * kLanHostInfoSize));
    const ctrlMsg_t named =
        dispatched(ctrlRequest(CMD_SET_DEV_NAME | CMD_GET_INFORM_CHANGE, localMac(1), 0, 0, "tv"));
    EXPECT_EQ(recordMac(named, 0), localMac(1));
}

}  // namespace
