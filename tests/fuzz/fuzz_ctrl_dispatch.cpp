// Control requests of any content against a populated table: up to 4136 bytes
// as one recv would deliver them, the rest zero. Every input starts from the same
// table (online, departed, blocked and flagged hosts) so that runs reproduce.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "control/ctrl_commands.h"
#include "core/log.h"
#include "hosts/host_table.h"
#include "hosts/liveness.h"
#include "platform/fake/fake_platform.h"

namespace {

constexpr unsigned kHostCount = 200;
constexpr uint8_t kFirstOctets[] = {0x00, 0x02, 'A', 0xa4};  // pass and fail the text check

struct TableSnapshot {
    hostEntry pool[kHostPoolSize];
    hostEntry *heads[kHashChainCount];
    hostEntry *free;
    uint32_t hostNum, maxHostNum, maxControlled, controlled;
} saved;

void addFuzzHost(unsigned i) {
    hostEntry *entry = getFreeFromFreeList();
    lanHostInfo_t &host = entry->lanHost;
    uint8_t mac[kMacLen] = {kFirstOctets[i % 4], 0x11, static_cast<uint8_t>(i >> 8),
                            static_cast<uint8_t>(i), static_cast<uint8_t>(i * 7), 0x5a};
    std::memcpy(host.mac, mac, sizeof mac);
    std::snprintf(host.devName, sizeof host.devName, "host-%u", i);
    host.ip = (i % 3) ? 0x0a00a8c0u + (i << 24) : 0;
    host.internetAccess = (i % 7 == 2) ? kInternetAccessBlocked : kInternetAccessDefault;
    host.firstConnect = (i % 3 == 0);
    entry->informChange = (i % 4 == 0);
    entry->phyPortId = static_cast<int8_t>(i % 6);
    entry->startOnLine = i;
    entry->valid = 1;
    addNewToHashList(entry, host.mac);
    if (i % 5 == 1) _disConnLanHost(entry, "fuzz", __LINE__);
}

// Takes the snapshot (TO_SAVED) or puts it back. The pool is static, so the saved chain
// pointers are valid again once copied back.
void copyTable(bool toSaved) {
    const auto copy = [toSaved](auto &live, auto &kept) {
        std::memcpy(toSaved ? &kept : &live, toSaved ? &live : &kept, sizeof live);
    };
    copy(hostPool, saved.pool), copy(hashHeads, saved.heads), copy(freeList, saved.free);
    copy(lanHostNum, saved.hostNum), copy(maxLanHostNum, saved.maxHostNum);
    copy(maxControlledNum, saved.maxControlled), copy(controlledNum, saved.controlled);
}

void setUpOnce() {
    std::freopen("/dev/null", "w", stdout);  // the table reset prints unconditionally
    fake::reset();
    fake::state().phyIds = {{"eth0.2", 1}, {"eth0.3", 2}};
    dbg_level = 0;
    initHostrixData();
    setMaxLanHostNum(kHostPoolSize);
    for (unsigned i = 0; i < kHostCount; ++i) addFuzzHost(i);
    copyTable(true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static bool ready = (setUpOnce(), true);
    copyTable(false);
    fake::state().commands.clear();
    ctrlMsg_t msg{};
    std::memcpy(&msg, data, size < sizeof msg ? size : sizeof msg);
    dispatchCtrlMsg(msg);
    return 0;
}
