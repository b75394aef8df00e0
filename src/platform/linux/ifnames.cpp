#include "platform/linux/ifnames.h"

#include <net/if.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include "platform/os.h"

namespace {

struct Published {
    IfnameMap map;
    // One flag per mapping: its missing kernel interface has been reported.
    std::unique_ptr<std::atomic<bool>[]> reported;
};

std::atomic<std::shared_ptr<const Published>> current;

// Said once per load: the interface may appear later, and then simply works.
void reportMissing(const Published &names, size_t index) {
    if (names.reported[index].exchange(true)) return;
    const auto &[gateway, kernel] = names.map.pairs()[index];
    (void)std::fprintf(stderr,
                       "hostrix: ifname.%s = %s: no such kernel interface (treated as absent)\n",
                       gateway.c_str(), kernel.c_str());
}

}  // namespace

void ifnamesPublish(const IfnameMap &map) {
    auto names = std::make_shared<Published>();
    names->map = map;
    names->reported = std::make_unique<std::atomic<bool>[]>(map.pairs().size());
    current.store(std::move(names));
}

std::string os_kernel_ifname(std::string_view gateway) {
    std::shared_ptr<const Published> names = current.load();
    if (!names) return std::string(gateway);
    const auto &pairs = names->map.pairs();
    for (size_t i = 0; i < pairs.size(); ++i) {
        if (pairs[i].first != gateway) continue;
        if (if_nametoindex(pairs[i].second.c_str()) == 0) reportMissing(*names, i);
        return pairs[i].second;
    }
    return std::string(gateway);
}

std::string os_gateway_ifname(std::string_view kernel) {
    std::shared_ptr<const Published> names = current.load();
    return std::string(names ? names->map.gatewayOf(kernel) : kernel);
}
