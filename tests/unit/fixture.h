// Shared fixture: every test starts from a freshly booted fake platform, an empty
// table open to all 256 hosts and default settings.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "core/log.h"
#include "core/settings.h"
#include "discovery/sources.h"
#include "hosts/host_table.h"
#include "hosts/probing.h"
#include "platform/fake/fake_platform.h"
#include "sniffer/neighbor_cache.h"
#include "sniffer/sniffer.h"
#include "traffic/bandwidth.h"

struct HostrixTest : ::testing::Test {
    void SetUp() override {
        fake::reset();
        settingsReset();
        setSnifferMonitorLogLevel(3);
        initHostrixData();
        bandwidthReset();
        setMaxLanHostNum(kHostPoolSize);
        maxControlledNum = 0;
        controlledNum = 0;
        resetDiscoverySources();
        aging_neighbor_host(1);
        setArpSocketOpener(nullptr);
    }
};

// Takes a free entry, gives it MAC and IFNAME and links it, as discovery does.
inline hostEntry *addHost(const fake::Mac &mac, const char *ifname = "eth0.2") {
    hostEntry *entry = getFreeFromFreeList();
    if (!entry) return nullptr;
    std::copy(mac.begin(), mac.end(), entry->lanHost.mac);
    std::snprintf(entry->lanHost.ifName, sizeof entry->lanHost.ifName, "%s", ifname);
    entry->lanHost.internetAccess = kInternetAccessDefault;
    entry->valid = 1;
    return addNewToHashList(entry, entry->lanHost.mac);
}

// Takes the host offline with its arrival already reported: recyclable.
inline void makeRecyclable(hostEntry *entry) {
    entry->valid = 0;
    entry->lanHost.firstConnect = 0;
}

// 02:00:00:00:00:K, a locally administered MAC.
inline fake::Mac localMac(uint8_t k) {
    return fake::mac(2, 0, 0, 0, 0, k);
}

// What F printed on standard output, or with TO_STDERR on standard error.
template <typename F>
std::string printedBy(F &&f, bool toStderr = false) {
    toStderr ? ::testing::internal::CaptureStderr() : ::testing::internal::CaptureStdout();
    f();
    return toStderr ? ::testing::internal::GetCapturedStderr()
                    : ::testing::internal::GetCapturedStdout();
}
