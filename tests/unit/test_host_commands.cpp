// Per-host attributes and the release command, through the dispatcher. The limits and
// port-down are the lab's control test's.
#include "ctrl_request.h"

namespace {

const fake::Mac kUnknownMac = checkedMac(0x99);

struct HostCommandTest : HostrixTest {
    void SetUp() override {
        HostrixTest::SetUp();
        host = addHost(checkedMac(1));
    }
    // The status starts as 7, what a skipped command would return.
    static ctrlMsg_t run(uint32_t cmd, uint32_t arg1 = 0, uint32_t arg2 = 0,
                         std::string_view text = {}) {
        return dispatched(ctrlRequest(cmd, checkedMac(1), arg1, arg2, text), 7);
    }
    hostEntry *host = nullptr;
};

// Only the low byte counts, and the count follows real changes of the flag only.
TEST_F(HostCommandTest, ControlledFlagCountsOnlyRealChangesOfItsLowByte) {
    for (auto [arg1, on] : {std::pair{1u, 1u}, {5u, 1u}, {0x100u, 0u}, {0x100u, 0u}}) {
        run(CMD_SET_CONTROLLED, arg1);
        EXPECT_EQ(controlledNum, on) << arg1;
        EXPECT_EQ(run(CMD_GET_CONTROLLED).arg1, on) << arg1;
    }
}

// Access 0 (all 32 bits) blocks at once; anything short of internet > 1 and other > 0
// makes the host controlled.
TEST_F(HostCommandTest, AccessStoresLowBytesAndBlocksOnlyOnZero) {
    // arg1 and arg2, then whether the host is disconnected, its internet access and controlledNum.
    const std::tuple<uint32_t, uint32_t, uint8_t, uint32_t, uint32_t> cases[] = {
        {0, 1, 1, 0, 1},
        {2, 1, 0, 2, 0},
        {0x100, 1, 0, 0, 1},
        {2, 0x200, 0, 2, 1},
        {1, 1, 0, 1, 1}};
    for (const auto &[arg1, arg2, disconnected, internetAccess, controlled] : cases) {
        SetUp();
        SCOPED_TRACE(testing::Message() << arg1 << " " << arg2);
        EXPECT_EQ(run(CMD_SET_ACCESS, arg1, arg2).status, 0u);
        ctrlMsg_t read = run(CMD_GET_ACCESS);
        EXPECT_EQ(std::tuple(host->lanHost.disConnect, controlledNum, read.arg1, read.arg2),
                  std::tuple(disconnected, controlled, internetAccess, arg2 & 0xff));
    }
}

// Model and os end with a NUL within 63 bytes; brand and devName leave byte 63 alone. A
// getter returns the text alone in data; only a new name flags the host.
TEST_F(HostCommandTest, TextIsCutAt63BytesAndReadBackAloneInData) {
    // The setter, the getter (0: none), the field, and whether the setter ends it with a NUL.
    const std::tuple<uint32_t, uint32_t, char(lanHostInfo_t::*)[kHostTextLen], bool> cases[] = {
        {CMD_SET_BRAND, CMD_GET_BRAND, &lanHostInfo_t::brand, false},
        {CMD_SET_MODEL, CMD_GET_MODEL, &lanHostInfo_t::model, true},
        {CMD_SET_OS, CMD_GET_OS, &lanHostInfo_t::os, true},
        {CMD_SET_DEV_NAME, 0, &lanHostInfo_t::devName, false}};
    for (const auto &[setCmd, getCmd, member, terminates] : cases) {
        SCOPED_TRACE(setCmd);
        char *field = host->lanHost.*member;
        std::memset(field, 'Z', kHostTextLen);
        run(setCmd, 0, 0, std::string(70, 'a'));
        EXPECT_EQ(std::string(field, 64), std::string(63, 'a') + (terminates ? '\0' : 'Z'));
        field[63] = '\0';
        for (int flagged : {1, 0}) {  // a new text, then the same again
            host->informChange = 0;
            EXPECT_EQ(run(setCmd, 0, 0, "Acme").status, 0u);
            EXPECT_STREQ(field, "Acme");
            EXPECT_EQ(host->informChange, setCmd == CMD_SET_DEV_NAME ? flagged : 0);
        }
        if (getCmd == 0) continue;
        ctrlMsg_t read = run(getCmd, 0, 0, "stale text");
        EXPECT_EQ(read.status, kCtrlStatusOk);
        EXPECT_STREQ(reinterpret_cast<const char *>(read.data + kCtrlTextOffset), "Acme");
        std::memset(read.data + kCtrlTextOffset, 0, 4);
        EXPECT_TRUE(allZero(read.data, kCtrlDataSize));
    }
}

TEST_F(HostCommandTest, ReleaseDeletesTheArpEntryAndDisconnectsEvenADepartedHost) {
    host->lanHost.ip = htonl(0x0a000001);
    host->valid = 0;
    EXPECT_EQ(run(CMD_SET_DHCP_RELEASE).status, kCtrlStatusOk);
    EXPECT_EQ(fake::state().commands, std::vector<std::string>{"arp -d 10.0.0.1"});
    EXPECT_EQ(host->lanHost.disConnect, 1);
}

}  // namespace
