// The DHCP hook's report and the fingerprint rules it feeds: a parsed report
// must format back to one that parses to the same fields.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "dhcp_report.h"
#include "os_family.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto report = parseDhcpReport(std::string_view(reinterpret_cast<const char *>(data), size));
    if (!report) return 0;
    classifyOs(*report);
    auto again = parseDhcpReport(formatDhcpReport(*report));
    // Values that hold a line break cannot come out of the parser, so nothing is cut.
    if (!again || *again != *report) std::abort();
    return 0;
}
