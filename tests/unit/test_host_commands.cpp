// Per-host attributes and the release command, through the dispatcher. The limits and
// port-down are the lab's control test's.
#include <arpa/inet.h>

#include "ctrl_request.h"

namespace {

const fake::Mac kUnknownMac = checkedMac(0x99);

class HostCommandTest : public HostrixTest {
   protected:
    void SetUp() override {
        HostrixTest::SetUp();
        host = addHost(checkedMac(1));
    }
    static ctrlMsg_t run(ctrlMsg_t msg) {
        msg.status = 7;  // what a skipped command would return
        dispatchCtrlMsg(msg);
        return msg;
    }
    hostEntry *host = nullptr;
};

// Only the low byte counts, and the count follows real changes of the flag only.
TEST_F(HostCommandTest, ControlledFlagCountsOnlyRealChangesOfItsLowByte) {
    for (auto [arg1, on] : {std::pair{1u, 1u}, {5u, 1u}, {0x100u, 0u}, {0x100u, 0u}}) {
        run(ctrlRequest(CMD_SET_CONTROLLED, checkedMac(1), arg1));
        EXPECT_EQ(controlledNum, on) << arg1;
        EXPECT_EQ(run(ctrlRequest(CMD_GET_CONTROLLED, checkedMac(1))).arg1, on) << arg1;
    }
}

// Access 0 (all 32 bits) blocks at once; anything short of internet > 1 and other > 0
// makes the host controlled.
TEST_F(HostCommandTest, AccessStoresLowBytesAndBlocksOnlyOnZero) {
    struct {
        uint32_t arg1, arg2;
        uint8_t disconnected;
        uint32_t internetAccess, controlled;
    } cases[] = {{0, 1, 1, 0, 1},
                 {2, 1, 0, 2, 0},
                 {0x100, 1, 0, 0, 1},
                 {2, 0x200, 0, 2, 1},
                 {1, 1, 0, 1, 1}};
    for (const auto &c : cases) {
        SetUp();
        SCOPED_TRACE(testing::Message() << c.arg1 << " " << c.arg2);
        EXPECT_EQ(run(ctrlRequest(CMD_SET_ACCESS, checkedMac(1), c.arg1, c.arg2)).status, 0u);
        EXPECT_EQ(std::tuple(host->lanHost.disConnect, controlledNum),
                  std::tuple(c.disconnected, c.controlled));
        ctrlMsg_t read = run(ctrlRequest(CMD_GET_ACCESS, checkedMac(1)));
        EXPECT_EQ(std::pair(read.arg1, read.arg2), std::pair(c.internetAccess, c.arg2 & 0xff));
    }
}

// Model and os end with a NUL within 63 bytes; brand and devName leave byte 63 alone. A
// getter returns the text alone in data; only a new name flags the host.
TEST_F(HostCommandTest, TextIsCutAt63BytesAndReadBackAloneInData) {
    struct {
        uint32_t setCmd, getCmd;
        char (lanHostInfo_t::*field)[kHostTextLen];
        bool terminates;
    } cases[] = {{CMD_SET_BRAND, CMD_GET_BRAND, &lanHostInfo_t::brand, false},
                 {CMD_SET_MODEL, CMD_GET_MODEL, &lanHostInfo_t::model, true},
                 {CMD_SET_OS, CMD_GET_OS, &lanHostInfo_t::os, true},
                 {CMD_SET_DEV_NAME, 0, &lanHostInfo_t::devName, false}};
    for (const auto &c : cases) {
        char *field = host->lanHost.*c.field;
        std::memset(field, 'Z', kHostTextLen);
        run(ctrlRequest(c.setCmd, checkedMac(1), 0, 0, std::string(70, 'a')));
        EXPECT_EQ(std::string(field, 63), std::string(63, 'a')) << c.setCmd;
        EXPECT_EQ(field[63], c.terminates ? '\0' : 'Z') << c.setCmd;
        field[63] = '\0';
        for (int flagged : {1, 0}) {  // a new text, then the same again
            host->informChange = 0;
            EXPECT_EQ(run(ctrlRequest(c.setCmd, checkedMac(1), 0, 0, "Acme")).status, 0u);
            EXPECT_STREQ(field, "Acme");
            EXPECT_EQ(host->informChange, c.setCmd == CMD_SET_DEV_NAME ? flagged : 0);
        }
        if (c.getCmd == 0) continue;
        ctrlMsg_t read = run(ctrlRequest(c.getCmd, checkedMac(1), 0, 0, "stale text"));
        EXPECT_EQ(read.status, kCtrlStatusOk);
        EXPECT_STREQ(reinterpret_cast<const char *>(read.data + kCtrlTextOffset), "Acme");
        std::memset(read.data + kCtrlTextOffset, 0, 4);
        EXPECT_TRUE(allZero(read.data, kCtrlDataSize)) << c.getCmd;
    }
}

TEST_F(HostCommandTest, ReleaseDeletesTheArpEntryAndDisconnectsEvenADepartedHost) {
    host->lanHost.ip = htonl(0x0a000001);
    host->valid = 0;
    EXPECT_EQ(run(ctrlRequest(CMD_SET_DHCP_RELEASE, checkedMac(1))).status, kCtrlStatusOk);
    EXPECT_EQ(fake::state().commands, std::vector<std::string>{"arp -d 10.0.0.1"});
    EXPECT_EQ(host->lanHost.disConnect, 1);
}

}  // namespace
