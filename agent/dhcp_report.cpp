#include "dhcp_report.h"

#include "args.h"

namespace {

std::string_view cutField(std::string_view value) {
    value = value.substr(0, value.find('\n'));
    return value.substr(0, kMaxDhcpField);
}

void addLine(std::string &out, std::string_view key, std::string_view value) {
    if (value.empty()) return;
    out.append(key).append("=").append(cutField(value)).append("\n");
}

// "1,3,6": decimal 0..255 each, no blanks, at most kMaxRequestedOptions of them.
std::optional<std::vector<uint8_t>> parseOptionList(std::string_view text) {
    std::vector<uint8_t> options;
    while (!text.empty()) {
        size_t comma = text.find(',');
        std::string_view word = text.substr(0, comma);
        bool digits = word.find_first_not_of("0123456789") == std::string_view::npos;
        std::optional<uint32_t> number = digits ? parseNumber(word, 255) : std::nullopt;
        if (!number || options.size() == kMaxRequestedOptions)
            return std::nullopt;
        options.push_back(static_cast<uint8_t>(*number));
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
    }
    return options;
}

bool applyLine(std::string_view key, std::string_view value, DhcpReport &report, bool &haveMac) {
    if (value.size() > kMaxDhcpField) return false;
    if (key == "mac") {
        std::optional<MacAddress> mac = parseMac(value);
        if (mac) report.mac = *mac;
        return haveMac = mac.has_value();
    }
    if (key == "hostname") return report.hostname = value, true;
    if (key == "client_id") return report.clientId = value, true;
    if (key == "vendor_class") return report.vendorClass = value, true;
    if (key == "options") {
        auto options = parseOptionList(value);
        if (options) report.options = std::move(*options);
        return options.has_value();
    }
    return true;  // a key from a newer hook: ignored
}

}  // namespace

std::string optionListText(const std::vector<uint8_t> &options) {
    std::string text;
    for (uint8_t option : options) {
        if (!text.empty()) text += ',';
        text += std::to_string(option);
    }
    return text;
}

std::string formatDhcpReport(const DhcpReport &report) {
    std::string out;
    addLine(out, "mac", formatMac(report.mac.data()));
    addLine(out, "hostname", report.hostname);
    addLine(out, "client_id", report.clientId);
    addLine(out, "vendor_class", report.vendorClass);
    addLine(out, "options", optionListText(report.options));
    return out.substr(0, kMaxDhcpReport);
}

std::optional<DhcpReport> parseDhcpReport(std::string_view datagram) {
    if (datagram.size() > kMaxDhcpReport) return std::nullopt;
    DhcpReport report;
    bool haveMac = false;
    while (!datagram.empty()) {
        size_t end = datagram.find('\n');
        std::string_view line = datagram.substr(0, end);
        datagram = end == std::string_view::npos ? std::string_view{} : datagram.substr(end + 1);
        if (line.empty()) continue;
        size_t equals = line.find('=');
        if (equals == std::string_view::npos) return std::nullopt;
        if (!applyLine(line.substr(0, equals), line.substr(equals + 1), report, haveMac))
            return std::nullopt;
    }
    if (!haveMac) return std::nullopt;
    return report;
}
