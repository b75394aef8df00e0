// Output of hostrixctl: host tables for people, one JSON object a line for
// scripts, and the event lines of watch. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/lanhost.h"
#include "platform/ifname_map.h"

// A text field up to its NUL, never past SIZE bytes (a full field has none).
std::string fieldText(const char *field, size_t size);
template <size_t N>
std::string fieldText(const char (&field)[N]) {
    return fieldText(field, N);
}

// TEXT for a terminal or a pipe: every byte outside 0x20..0x7e becomes \xHH and a
// backslash becomes \\, so LAN-supplied names cannot move the cursor or fake a
// line, and the bytes can still be read back exactly.
std::string escapeText(std::string_view text);

// TEXT as a quoted JSON string; control bytes, DEL and bytes from 0x80 up are
// written as \u00XX, so any byte string gives valid ASCII JSON.
std::string jsonQuote(std::string_view text);

// One JSON object, members in the order they are added.
class JsonObject {
public:
    JsonObject &text(std::string_view key, std::string_view value);
    JsonObject &number(std::string_view key, uint64_t value);
    JsonObject &signedNumber(std::string_view key, int64_t value);
    JsonObject &boolean(std::string_view key, bool value);
    // VALUE is already JSON (an array or object built by the caller).
    JsonObject &raw(std::string_view key, std::string_view json);
    std::string str() const { return "{" + members_ + "}"; }

private:
    void key(std::string_view name);
    std::string members_;
};

std::string ipv4Text(uint32_t networkOrder);
std::string ipv6Text(const uint8_t *address);
// Unix SECONDS as ISO 8601 UTC: "2026-11-23T10:00:00Z".
std::string utcText(int64_t seconds);
// Days, hours, minutes and seconds: "2d 03:04:05" or "03:04:05".
std::string durationText(uint32_t seconds);
// "YYYY-MM-DD HH:MM:SS" in local time.
std::string localTimeText(time_t when);

// Every field of the record under its record name, added to OBJECT.
void addHostFields(const lanHostInfo_t &host, JsonObject &object);
std::string hostJson(const lanHostInfo_t &host);
// Header and one aligned row per host; EMPTY_NOTE instead when there are none.
// NAMES adds the kernel's interface name where it differs from the gateway's.
std::string hostTable(const std::vector<lanHostInfo_t> &hosts, std::string_view emptyNote,
                      const IfnameMap &names = {});

// "2026-11-23 10:00:03 NEW     aa:bb:cc:dd:ee:ff 10.77.0.10 hx-h1 eth0.2"
std::string eventLine(time_t when, std::string_view event, const lanHostInfo_t &host);
std::string eventJson(time_t when, std::string_view event, const lanHostInfo_t &host);
