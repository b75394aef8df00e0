#include "core/paths.h"

#include <array>
#include <cstdlib>
#include <string>

namespace {

constexpr std::array<std::string_view, 8> kBasePaths = {
    "/var/run/.hostrix_msg",       "/var/run/.hostapd_action_sock",
    "/var/run/hostrix.fifo",       "/var/run/hostrix.pid",
    "/var/hostrix",                "/var/run/.hostrix_ignore_ifnames",
    "/tmp/fc_lut_list",            "/etc/hostrix/mib.conf",
};

struct PathTable {
    bool built = false;
    std::array<std::string, kBasePaths.size()> full;
};

PathTable &table() {
    static PathTable paths;
    return paths;
}

void build(PathTable &paths) {
    const char *root = std::getenv("HOSTRIX_ROOT");
    std::string prefix = root ? root : "";
    while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
    for (size_t i = 0; i < kBasePaths.size(); ++i) paths.full[i] = prefix + std::string(kBasePaths[i]);
    paths.built = true;
}

}  // namespace

std::string_view hostrixBasePath(HostrixFile file) {
    return kBasePaths[static_cast<size_t>(file)];
}

const char *hostrixPath(HostrixFile file) {
    PathTable &paths = table();
    if (!paths.built) build(paths);
    return paths.full[static_cast<size_t>(file)].c_str();
}

void pathsReset() { table().built = false; }
