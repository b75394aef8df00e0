// Gateway interface names and the kernel's names for them ("ifname.br0 = br-lan" in
// mib.conf). The daemon's records, logs and protocol carry gateway names; whatever
// touches the kernel translates. An unmapped name is the same on both sides.
// Shared by the daemon's backend and the tools that show or forward names.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

class IfnameMap {
   public:
    // Maps GATEWAY to KERNEL. A gateway name mapped again takes the new kernel name;
    // a kernel name that another gateway name already has is refused (first wins).
    bool add(std::string_view gateway, std::string_view kernel);
    std::string_view kernelOf(std::string_view gateway) const;
    std::string_view gatewayOf(std::string_view kernel) const;
    bool empty() const { return pairs_.empty(); }
    const std::vector<std::pair<std::string, std::string>> &pairs() const { return pairs_; }
    bool operator==(const IfnameMap &) const = default;

   private:
    std::vector<std::pair<std::string, std::string>> pairs_;  // gateway, kernel; a handful
};

inline constexpr std::string_view kIfnameKeyPrefix = "ifname.";

// The map of the "ifname." lines of a mib.conf text, for tools that need nothing
// else of it; bad lines are left out silently (the daemon reports them).
IfnameMap parseIfnameLines(std::string_view text);
// The same from the file at PATH; empty when it cannot be read.
IfnameMap readIfnameMap(const char *path);
