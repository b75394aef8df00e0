// Linking a new random MAC to a device seen before.
#include <gtest/gtest.h>

#include "linking.h"

namespace {

constexpr int64_t kNow = 1700000000;
constexpr std::array<uint8_t, 6> kNewRandom = {0x06, 1, 2, 3, 4, 5};
const std::string kOld = "0a:09:09:09:09:09", kGroup = "0e:00:00:00:00:01";
const std::optional<std::string> kNone;

DhcpReport phone(std::array<uint8_t, 6> mac, std::string clientId, std::string hostname) {
    return {mac, std::move(hostname), std::move(clientId), "android-dhcp-13",
            {1, 3, 6, 15, 26, 28, 51, 58, 59, 43}};
}

// MAC, last seen AGO seconds back, sending the phone's report with ID and NAME.
KnownDevice seen(std::string mac, int64_t ago, std::string id, std::string name = "",
                 std::string linkedTo = "") {
    return {std::move(mac), kNow - ago, std::move(linkedTo), phone({}, id, name)};
}

TEST(AgentLinking, MatchesClientIdOrNameWithFingerprintWithinAWeek) {
    DhcpReport byId = phone(kNewRandom, "ff:12:34", ""), byName = phone(kNewRandom, "", "Pixel-7");
    DhcpReport otherPrint = byName;
    otherPrint.options.pop_back();
    const std::string macId = "01:06:01:02:03:04:05";
    const std::tuple<const char *, DhcpReport, std::vector<KnownDevice>, std::optional<std::string>>
        cases[] = {
            {"same client id", byId, {seen(kOld, 3600, "FF:12:34")}, kOld},
            {"same name and fingerprint", byName, {seen(kOld, 3600, "", "pixel-7")}, kOld},
            {"same name, other fingerprint", otherPrint, {seen(kOld, 3600, "", "pixel-7")}, kNone},
            {"older than a week", byId, {seen(kOld, kLinkWindowSeconds + 1, "ff:12:34")}, kNone},
            {"linked: to its group's first",
             byId,
             {seen(kOld, 60, "ff:12:34", "", kGroup)},
             kGroup},
            {"most recent of two",
             byId,
             {seen("0a:00:00:00:00:01", 7200, "ff:12:34"), seen(kOld, 60, "ff:12:34")},
             kOld},
            {"a client id that is only the MAC",
             phone(kNewRandom, macId, ""),
             {seen(kOld, 60, macId)},
             kNone},
            {"itself", byId, {seen("06:01:02:03:04:05", 60, "ff:12:34")}, kNone},
            {"a universal MAC is never linked",
             phone({0x00, 1, 2, 3, 4, 5}, "ff:12:34", ""),
             {seen(kOld, 60, "ff:12:34")},
             kNone},
        };
    for (const auto &[what, report, known, link] : cases)
        EXPECT_EQ(findLink(report, kNow, known), link) << what;
}

}  // namespace
