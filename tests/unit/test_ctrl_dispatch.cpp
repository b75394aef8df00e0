// The dispatcher: which handlers run, in what order, and what the reply keeps.

#include "ctrl_request.h"
#include "hosts/liveness.h"

namespace {

class CtrlDispatchTest : public HostrixTest {
   protected:
    void SetUp() override {
        HostrixTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
    }
};

// Only replyTag (the request's status) and the handler's results change; without a
// handler only the tag does.
TEST_F(CtrlDispatchTest, ReplyChangesOnlyTheTagAndTheResults) {
    addHost(checkedMac(0x55))->lanHost.devType = 3;
    for (uint32_t cmd :
         {uint32_t{CMD_GET_DEVICE_TYPE}, 0u, 0x400000u, 0x1000000u, 0x4000000u, 0xd7400000u}) {
        ctrlMsg_t request = ctrlRequest(cmd, checkedMac(0x55), 0, 0xa5a5a5a5);
        request.status = 7;
        request.replyTag = 0xdeadbeef;
        request.reserved = 0x1122334455667788;
        std::memset(request.pad, 0xee, sizeof request.pad);
        for (size_t i = kCtrlMacLen; i < kCtrlDataSize; ++i) request.data[i] = 'a' + i % 26;
        ctrlMsg_t reply = request;
        dispatchCtrlMsg(reply);
        request.replyTag = 7;
        if (cmd == CMD_GET_DEVICE_TYPE) request.status = kCtrlStatusOk, request.arg1 = 3;
        EXPECT_EQ(std::memcmp(&reply, &request, sizeof reply), 0) << cmd;
    }
}

// get-OS wipes the MAC, so the name setter after it finds no host; the change query
// then reports the flagged host. In bit order the name setter would run last.
TEST_F(CtrlDispatchTest, HandlersRunInTableOrderOnOneBuffer) {
    hostEntry *host = addHost(checkedMac(1));
    ASSERT_NE(host, nullptr);
    std::strcpy(host->lanHost.devName, "tv");
    host->informChange = 1;
    ctrlMsg_t msg =
        ctrlRequest(CMD_GET_OS | CMD_SET_DEV_NAME | CMD_GET_INFORM_CHANGE, checkedMac(1));
    dispatchCtrlMsg(msg);
    EXPECT_EQ(msg.status, kCtrlStatusOk);
    EXPECT_EQ(recordMac(msg, 0), checkedMac(1));
    EXPECT_STREQ(host->lanHost.devName, "tv");
    EXPECT_EQ(host->informChange, 0);
}

// The text after the MAC is checked, never the MAC: any MAC can be reached.
TEST_F(CtrlDispatchTest, HandlerRunsOnlyWhenTheTextAfterTheMacIsPrintable) {
    const std::tuple<fake::Mac, std::string, bool> cases[] = {
        {fake::mac(0xa4, 0x83, 0xe7, 0x12, 0x34, 0x56), "", true},
        {fake::mac(0x1c, 0x7f, 2, 3, 4, 5), "name", true},
        {fake::mac(0x0a, 1, 2, 3, 4, 5), "ab\x1b[2J", false},
        {fake::mac(0x0a, 1, 2, 3, 4, 6), "ab\xa4", false},  // compared as signed
        {fake::mac(0x0a, 1, 2, 3, 4, 7), "ab\r\x01", true}};
    for (const auto &[mac, text, runs] : cases) {
        hostEntry *host = addHost(mac);
        ctrlMsg_t msg = ctrlRequest(CMD_SET_DEVICE_TYPE, mac, 9, 0, text);
        msg.status = 5;
        dispatchCtrlMsg(msg);
        EXPECT_EQ(std::tuple(msg.status, host->lanHost.devType),
                  std::tuple(runs ? kCtrlStatusOk : 5u, runs ? 9 : 0))
            << text;
    }
}

// What the client left in data goes; departures follow the arrivals at the offset the
// first handler reached.
TEST_F(CtrlDispatchTest, InformQueriesWipeDataAndAppendInTurn) {
    ctrlMsg_t empty = ctrlRequest(CMD_GET_NEW_DEVICE, checkedMac(1), 0, 0, "leftover text");
    dispatchCtrlMsg(empty);
    EXPECT_TRUE(allZero(empty.data, sizeof empty.data));
    addHost(fake::mac(0x02, 0, 0, 0, 0, 1))->lanHost.firstConnect = 1;
    _disConnLanHost(addHost(checkedMac(2)), "test", __LINE__);
    ctrlMsg_t msg = ctrlRequest(CMD_GET_NEW_DEVICE | CMD_GET_LEAVE_DEVICE);
    dispatchCtrlMsg(msg);
    EXPECT_EQ(recordMac(msg, 0), fake::mac(0x02, 0, 0, 0, 0, 1));
    EXPECT_EQ(recordMac(msg, 1), checkedMac(2));
    EXPECT_TRUE(allZero(msg.data + 2 * kLanHostInfoSize, kCtrlDataSize - 2 * kLanHostInfoSize));
}

}  // namespace
