#include "platform/ifname_map.h"

#include <algorithm>
#include <fstream>

namespace {

constexpr std::string_view kBlank = " \t\r";
constexpr size_t kMaxIfnameFileBytes = size_t{64} * 1024;

std::string_view trim(std::string_view text) {
    size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

}  // namespace

bool IfnameMap::add(std::string_view gateway, std::string_view kernel) {
    for (const auto &[gw, k] : pairs_)
        if (k == kernel && gw != gateway) return false;
    auto same = std::find_if(pairs_.begin(), pairs_.end(),
                             [gateway](const auto &pair) { return pair.first == gateway; });
    if (same != pairs_.end()) {
        same->second = kernel;
    } else {
        pairs_.emplace_back(gateway, kernel);
    }
    return true;
}

std::string_view IfnameMap::kernelOf(std::string_view gateway) const {
    for (const auto &[gw, kernel] : pairs_)
        if (gw == gateway) return kernel;
    return gateway;
}

std::string_view IfnameMap::gatewayOf(std::string_view kernel) const {
    for (const auto &[gateway, k] : pairs_)
        if (k == kernel) return gateway;
    return kernel;
}

IfnameMap parseIfnameLines(std::string_view text) {
    IfnameMap map;
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        line = trim(line.substr(0, line.find('#')));
        text.remove_prefix(std::min(end + 1, text.size()));
        size_t eq = line.find('=');
        if (!line.starts_with(kIfnameKeyPrefix) || eq == std::string_view::npos) continue;
        std::string_view gateway =
            trim(line.substr(kIfnameKeyPrefix.size(), eq - kIfnameKeyPrefix.size()));
        std::string_view kernel = trim(line.substr(eq + 1));
        if (!gateway.empty() && !kernel.empty()) map.add(gateway, kernel);
    }
    return map;
}

IfnameMap readIfnameMap(const char *path) {
    std::ifstream file(path ? path : "");
    std::string text;
    char buffer[4096];
    while (file && text.size() < kMaxIfnameFileBytes) {
        file.read(buffer, sizeof buffer);
        text.append(buffer, static_cast<size_t>(file.gcount()));
    }
    return parseIfnameLines(text);
}
