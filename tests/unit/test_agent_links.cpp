// Linking a new random MAC to a device seen before.
#include <gtest/gtest.h>

#include "linking.h"

namespace {

constexpr int64_t kNow = 1700000000;

DhcpReport phone(std::array<uint8_t, 6> mac, std::string clientId, std::string hostname) {
    DhcpReport report;
    report.mac = mac;
    report.clientId = std::move(clientId);
    report.hostname = std::move(hostname);
    report.options = {1, 3, 6, 15, 26, 28, 51, 58, 59, 43};
    report.vendorClass = "android-dhcp-13";
    return report;
}

KnownDevice seen(std::string mac, int64_t ago, DhcpReport dhcp, std::string linkedTo = "") {
    return {std::move(mac), kNow - ago, std::move(linkedTo), std::move(dhcp)};
}

constexpr std::array<uint8_t, 6> kNewRandom = {0x06, 1, 2, 3, 4, 5};
constexpr std::array<uint8_t, 6> kOldRandom = {0x0a, 9, 9, 9, 9, 9};

TEST(AgentLinking, MatchesClientIdOrNameWithFingerprintWithinAWeek) {
    DhcpReport byId = phone(kNewRandom, "ff:12:34", "");
    DhcpReport byName = phone(kNewRandom, "", "Pixel-7");
    struct Case {
        const char *what;
        DhcpReport report;
        std::vector<KnownDevice> known;
        std::optional<std::string> link;
    };
    DhcpReport otherFingerprint = phone(kOldRandom, "", "pixel-7");
    otherFingerprint.options.pop_back();
    const Case cases[] = {
        {"same client id", byId, {seen("0a:09:09:09:09:09", 3600, phone(kOldRandom, "FF:12:34", ""))},
         "0a:09:09:09:09:09"},
        {"same name and fingerprint", byName,
         {seen("0a:09:09:09:09:09", 3600, phone(kOldRandom, "", "pixel-7"))}, "0a:09:09:09:09:09"},
        {"same name, other fingerprint", byName, {seen("0a:09:09:09:09:09", 3600, otherFingerprint)},
         std::nullopt},
        {"older than a week", byId,
         {seen("0a:09:09:09:09:09", kLinkWindowSeconds + 1, phone(kOldRandom, "ff:12:34", ""))},
         std::nullopt},
        {"linked device: to its group's first MAC", byId,
         {seen("0a:09:09:09:09:09", 60, phone(kOldRandom, "ff:12:34", ""), "0e:00:00:00:00:01")},
         "0e:00:00:00:00:01"},
        {"most recent of two", byId,
         {seen("0a:00:00:00:00:01", 7200, phone(kOldRandom, "ff:12:34", "")),
          seen("0a:00:00:00:00:02", 60, phone(kOldRandom, "ff:12:34", ""))},
         "0a:00:00:00:00:02"},
        {"a client id that is only the MAC", phone(kNewRandom, "01:06:01:02:03:04:05", ""),
         {seen("0a:09:09:09:09:09", 60, phone(kOldRandom, "01:06:01:02:03:04:05", ""))},
         std::nullopt},
        {"itself", byId, {seen("06:01:02:03:04:05", 60, phone(kNewRandom, "ff:12:34", ""))},
         std::nullopt},
        {"a universal MAC is never linked", phone({0x00, 1, 2, 3, 4, 5}, "ff:12:34", ""),
         {seen("0a:09:09:09:09:09", 60, phone(kOldRandom, "ff:12:34", ""))}, std::nullopt},
    };
    for (const Case &c : cases) EXPECT_EQ(findLink(c.report, kNow, c.known), c.link) << c.what;
}

}  // namespace
