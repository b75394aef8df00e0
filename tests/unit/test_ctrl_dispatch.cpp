#include <cstring>

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

// get-OS wipes the MAC, so the name setter after it finds no host; the change
// query then reports the flagged host. In bit order the name setter would run
// last and rename the reported host from the record's bytes.
TEST_F(CtrlDispatchTest, NameSetterRunsBetweenOsGetterAndChangeQuery) {
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

TEST_F(CtrlDispatchTest, DeviceTypeReplyChangesOnlyTagStatusAndArg1) {
    addHost(checkedMac(0x55))->lanHost.devType = 3;
    ctrlMsg_t request = ctrlRequest(CMD_GET_DEVICE_TYPE, checkedMac(0x55), 0, 0xa5a5a5a5);
    request.status = 7;
    request.replyTag = 0xdeadbeef;
    request.reserved = 0x1122334455667788;
    std::memset(request.pad, 0xee, sizeof request.pad);
    for (size_t i = kCtrlMacLen; i < kCtrlDataSize; ++i) request.data[i] = 'a' + i % 26;
    ctrlMsg_t reply = request;
    dispatchCtrlMsg(reply);
    request.replyTag = 7;
    request.status = kCtrlStatusOk;
    request.arg1 = 3;
    EXPECT_EQ(std::memcmp(&reply, &request, sizeof reply), 0);
}

TEST_F(CtrlDispatchTest, WithoutAHandlerOnlyTheTagChanges) {
    for (uint32_t cmd : {0u, 0x400000u, 0x1000000u, 0x4000000u, 0x10000000u, 0xd7400000u}) {
        ctrlMsg_t request = ctrlRequest(cmd, checkedMac(1), 9, 0, "text");
        request.status = 0x0102030405060708;
        ctrlMsg_t reply = request;
        dispatchCtrlMsg(reply);
        request.replyTag = request.status;
        EXPECT_EQ(std::memcmp(&reply, &request, sizeof reply), 0) << cmd;
    }
}

// The text after the MAC is checked, never the MAC: any MAC can be reached.
TEST_F(CtrlDispatchTest, HandlerRunsOnlyWhenTheTextAfterTheMacIsPrintable) {
    struct Case {
        fake::Mac mac;
        std::string text;
        bool runs;
    };
    for (const Case &c : {Case{fake::mac(0xa4, 0x83, 0xe7, 0x12, 0x34, 0x56), "", true},
                          Case{fake::mac(0x1c, 0x7f, 2, 3, 4, 5), "name", true},
                          Case{fake::mac(0x0a, 1, 2, 3, 4, 5), "ab\x1b[2J", false},
                          Case{fake::mac(0x0a, 1, 2, 3, 4, 6), "ab\xa4", false},  // signed
                          Case{fake::mac(0x0a, 1, 2, 3, 4, 7), "ab\r\x01", true}}) {
        hostEntry *host = addHost(c.mac);
        ctrlMsg_t msg = ctrlRequest(CMD_SET_DEVICE_TYPE, c.mac, 9, 0, c.text.c_str());
        msg.status = 5;
        dispatchCtrlMsg(msg);
        EXPECT_EQ(msg.status, c.runs ? kCtrlStatusOk : 5u) << c.text;
        EXPECT_EQ(host->lanHost.devType, c.runs ? 9 : 0) << c.text;
    }
}

TEST_F(CtrlDispatchTest, InformQueryWipesTheClientsData) {
    ctrlMsg_t msg = ctrlRequest(CMD_GET_NEW_DEVICE, checkedMac(1), 0, 0, "leftover text");
    dispatchCtrlMsg(msg);
    EXPECT_EQ(msg.status, kCtrlStatusOk);
    EXPECT_TRUE(allZero(msg.data, sizeof msg.data));
}

// Departures follow the arrivals at the offset the first handler left.
TEST_F(CtrlDispatchTest, LaterHandlersAppendAfterEarlierRecords) {
    addHost(fake::mac(0x02, 0, 0, 0, 0, 1))->lanHost.firstConnect = 1;
    hostEntry *left = addHost(checkedMac(2));
    _disConnLanHost(left, "test", __LINE__);
    ctrlMsg_t msg = ctrlRequest(CMD_GET_NEW_DEVICE | CMD_GET_LEAVE_DEVICE);
    dispatchCtrlMsg(msg);
    EXPECT_EQ(recordMac(msg, 0), fake::mac(0x02, 0, 0, 0, 0, 1));
    EXPECT_EQ(recordMac(msg, 1), checkedMac(2));
    EXPECT_TRUE(allZero(msg.data + 2 * kLanHostInfoSize, kCtrlDataSize - 2 * kLanHostInfoSize));
}

}  // namespace
