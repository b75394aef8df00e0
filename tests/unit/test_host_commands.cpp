#include <arpa/inet.h>

#include <cstring>
#include <string>

#include "ctrl_request.h"

namespace {

constexpr uint64_t kStatusAsSent = 7;
const fake::Mac kUnknownMac = checkedMac(0x99);

class HostCommandTest : public HostrixTest {
protected:
    void SetUp() override {
        HostrixTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
        host = addHost(checkedMac(1));
    }

    static ctrlMsg_t run(ctrlMsg_t msg) {
        msg.status = kStatusAsSent;
        dispatchCtrlMsg(msg);
        return msg;
    }

    hostEntry *host = nullptr;
};

TEST_F(HostCommandTest, LimitsAreCheckedAgainstThePoolAndReadBack) {
    struct Case {
        uint32_t cmd, arg1;
        uint64_t status;
        uint32_t *limit;
        uint32_t expected;  // the limit after a setter, arg1 after a getter
    };
    for (Case c : {Case{CMD_SET_MAX_HOSTS, 256, 0, &maxLanHostNum, 256},
                   Case{CMD_SET_MAX_HOSTS, 257, 1, &maxLanHostNum, 17},
                   Case{CMD_SET_MAX_HOSTS, 0xffffffff, 1, &maxLanHostNum, 17},
                   Case{CMD_SET_MAX_CONTROLLED, 256, 0, &maxControlledNum, 256},
                   Case{CMD_SET_MAX_CONTROLLED, 257, 1, &maxControlledNum, 17},
                   Case{CMD_GET_MAX_HOSTS, 0, 0, &maxLanHostNum, 17},
                   Case{CMD_GET_MAX_CONTROLLED, 0, 0, &maxControlledNum, 17},
                   Case{CMD_GET_CONTROLLED_NUM, 0, 0, &controlledNum, 17}}) {
        *c.limit = 17;
        ctrlMsg_t msg = run(ctrlRequest(c.cmd, {}, c.arg1));
        EXPECT_EQ(msg.status, c.status) << c.cmd << " " << c.arg1;
        bool getter = c.cmd & (CMD_GET_MAX_HOSTS | CMD_GET_MAX_CONTROLLED | CMD_GET_CONTROLLED_NUM);
        EXPECT_EQ(getter ? msg.arg1 : *c.limit, c.expected) << c.cmd << " " << c.arg1;
    }
}

TEST_F(HostCommandTest, ControlledFlagCountsOnlyRealChangesOfItsLowByte) {
    struct Step {
        uint32_t arg1;
        uint8_t flag;
        uint32_t count;
    };
    for (Step s : {Step{1, 1, 1}, Step{5, 1, 1}, Step{0x100, 0, 0}, Step{0x100, 0, 0}}) {
        run(ctrlRequest(CMD_SET_CONTROLLED, checkedMac(1), s.arg1));
        EXPECT_EQ(controlledNum, s.count) << s.arg1;
        EXPECT_EQ(run(ctrlRequest(CMD_GET_CONTROLLED, checkedMac(1))).arg1, s.flag) << s.arg1;
    }
}

TEST_F(HostCommandTest, AccessStoresLowBytesAndBlocksOnlyOnZero) {
    struct Case {
        uint32_t arg1, arg2;
        bool disconnected;
        uint8_t internetAccess, controlled;
    };
    for (Case c : {Case{0, 1, true, 0, 1}, Case{2, 1, false, 2, 0}, Case{0x100, 1, false, 0, 1},
                   Case{2, 0x200, false, 2, 1}, Case{1, 1, false, 1, 1}}) {
        SetUp();
        EXPECT_EQ(run(ctrlRequest(CMD_SET_ACCESS, checkedMac(1), c.arg1, c.arg2)).status, 0u);
        EXPECT_EQ(host->lanHost.disConnect, c.disconnected ? 1 : 0) << c.arg1;
        EXPECT_EQ(host->lanHost.controlled, c.controlled) << c.arg1;
        EXPECT_EQ(controlledNum, c.controlled) << c.arg1;
        ctrlMsg_t read = run(ctrlRequest(CMD_GET_ACCESS, checkedMac(1)));
        EXPECT_EQ(read.arg1, c.internetAccess) << c.arg1;
        EXPECT_EQ(read.arg2, c.arg2 & 0xff) << c.arg1;
    }
}

// A miss fails and changes nothing, except for the two commands that report
// success whatever they find.
TEST_F(HostCommandTest, UnknownHostFailsExceptForAccessAndRelease) {
    for (uint32_t cmd : {CMD_SET_CONTROLLED, CMD_GET_CONTROLLED, CMD_GET_ACCESS,
                         CMD_SET_DEVICE_TYPE, CMD_GET_DEVICE_TYPE, CMD_SET_BRAND, CMD_GET_BRAND,
                         CMD_SET_MODEL, CMD_GET_MODEL, CMD_SET_OS, CMD_GET_OS, CMD_SET_DEV_NAME}) {
        ctrlMsg_t msg = run(ctrlRequest(cmd, kUnknownMac, 1, 1, "x"));
        EXPECT_EQ(msg.status, kCtrlStatusFailed) << cmd;
        if (cmd & (CMD_GET_BRAND | CMD_GET_MODEL | CMD_GET_OS)) {
            EXPECT_TRUE(allZero(msg.data, kCtrlDataSize)) << cmd;
        }
    }
    for (uint32_t cmd : {CMD_SET_ACCESS, CMD_SET_DHCP_RELEASE})
        EXPECT_EQ(run(ctrlRequest(cmd, kUnknownMac)).status, kCtrlStatusOk) << cmd;
    EXPECT_EQ(controlledNum, 0u);
    EXPECT_TRUE(fake::state().commands.empty());
}

struct TextCase {
    const char *name;
    uint32_t setCmd, getCmd;
    char (lanHostInfo_t::*field)[kHostTextLen];
    bool terminates;  // model and os end with a NUL; brand and devName leave byte 63
};

class TextFieldTest : public HostCommandTest, public ::testing::WithParamInterface<TextCase> {
protected:
    char *field() { return host->lanHost.*GetParam().field; }
};

TEST_P(TextFieldTest, TextIsCutAt63BytesEvenWithoutATerminatorInData) {
    std::memset(field(), 'Z', kHostTextLen);
    run(ctrlRequest(GetParam().setCmd, checkedMac(1), 0, 0, std::string(70, 'a')));
    EXPECT_EQ(std::string(field(), 63), std::string(63, 'a'));
    EXPECT_EQ(field()[63], GetParam().terminates ? '\0' : 'Z');

    ctrlMsg_t msg = ctrlRequest(GetParam().setCmd, checkedMac(1));
    std::memset(msg.data + kCtrlTextOffset, 'b', kCtrlDataSize - kCtrlTextOffset);
    EXPECT_EQ(run(msg).status, kCtrlStatusOk);
    EXPECT_EQ(std::string(field(), 63), std::string(63, 'b'));
}

TEST_P(TextFieldTest, GetterRepliesWithTheTextAloneInData) {
    run(ctrlRequest(GetParam().setCmd, checkedMac(1), 0, 0, "Acme"));
    EXPECT_STREQ(field(), "Acme");
    if (GetParam().getCmd == 0) return;
    ctrlMsg_t read = run(ctrlRequest(GetParam().getCmd, checkedMac(1), 0, 0, "stale text"));
    EXPECT_EQ(read.status, kCtrlStatusOk);
    EXPECT_TRUE(allZero(read.data, kCtrlTextOffset));
    EXPECT_STREQ(reinterpret_cast<const char *>(read.data + kCtrlTextOffset), "Acme");
    EXPECT_TRUE(allZero(read.data + 10, kCtrlDataSize - 10));
}

INSTANTIATE_TEST_SUITE_P(
    Fields, TextFieldTest,
    ::testing::Values(
        TextCase{"Brand", CMD_SET_BRAND, CMD_GET_BRAND, &lanHostInfo_t::brand, false},
        TextCase{"Model", CMD_SET_MODEL, CMD_GET_MODEL, &lanHostInfo_t::model, true},
        TextCase{"Os", CMD_SET_OS, CMD_GET_OS, &lanHostInfo_t::os, true},
        TextCase{"DevName", CMD_SET_DEV_NAME, 0, &lanHostInfo_t::devName, false}),
    CaseName());

TEST_F(HostCommandTest, OnlyANewNameFlagsTheHostForTheChangeQuery) {
    for (auto [name, flagged] : {std::pair{"printer", 1}, {"printer", 0}, {"printer2", 1}}) {
        host->informChange = 0;
        EXPECT_EQ(run(ctrlRequest(CMD_SET_DEV_NAME, checkedMac(1), 0, 0, name)).status, 0u);
        EXPECT_EQ(host->informChange, flagged) << name;
        EXPECT_STREQ(host->lanHost.devName, name);
    }
}

TEST_F(HostCommandTest, ReleaseDeletesTheArpEntryAndDisconnects) {
    struct Case {
        uint32_t ip;  // host order
        int8_t valid;
        const char *command;
    };
    for (Case c : {Case{0, 1, "arp -d 0.0.0.0"}, Case{0xc0a80114, 1, "arp -d 192.168.1.20"},
                   Case{0x0a000001, 0, "arp -d 10.0.0.1"}}) {  // a departed host too
        fake::state().commands.clear();
        host->lanHost.ip = htonl(c.ip);
        host->valid = c.valid;
        host->lanHost.disConnect = 0;
        EXPECT_EQ(run(ctrlRequest(CMD_SET_DHCP_RELEASE, checkedMac(1))).status, kCtrlStatusOk);
        EXPECT_EQ(fake::state().commands, std::vector<std::string>{c.command});
        EXPECT_EQ(host->valid, 0);
        EXPECT_EQ(host->lanHost.disConnect, 1);
    }
}

// A free slot's MAC is all zero; a zero-MAC release must not disconnect one.
TEST_F(HostCommandTest, ReleaseOfTheZeroMacFindsNoHost) {
    EXPECT_EQ(run(ctrlRequest(CMD_SET_DHCP_RELEASE, fake::Mac{})).status, kCtrlStatusOk);
    EXPECT_TRUE(fake::state().commands.empty());
    EXPECT_EQ(hostPool[0].lanHost.disConnect, 0);
}

TEST_F(HostCommandTest, LinkChangeDisconnectsTheHostsOfALanPortOnly) {
    host->phyPortId = 4;
    EXPECT_EQ(run(ctrlRequest(CMD_SET_LINK_CHANGE_PORT, {}, 4)).status, kCtrlStatusFailed);
    EXPECT_EQ(host->valid, 1);
    fake::state().phyIds["eth0.3"] = 4;
    EXPECT_EQ(run(ctrlRequest(CMD_SET_LINK_CHANGE_PORT, {}, 0x304)).status, kCtrlStatusOk);
    EXPECT_EQ(host->valid, 0);
}

}  // namespace
