#include "mdns.h"

#include <algorithm>
#include <optional>

namespace {

constexpr size_t kHeaderSize = 12;
constexpr uint16_t kResponseFlag = 0x8000;
constexpr uint16_t kTypeA = 1, kTypeAaaa = 28;
constexpr uint16_t kClassIn = 1, kClassMask = 0x7fff;  // top bit: cache flush
constexpr size_t kMaxNameLength = 255;
constexpr size_t kMaxPointerHops = 16;
constexpr uint8_t kPointerBits = 0xc0;
constexpr size_t kFixedRecordPart = 10;  // type, class, ttl, rdlength

class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    std::optional<uint16_t> u16(size_t &at) const {
        if (at + 2 > bytes_.size()) return std::nullopt;
        uint16_t value = static_cast<uint16_t>(bytes_[at] << 8 | bytes_[at + 1]);
        at += 2;
        return value;
    }
    uint32_t u32At(size_t at) const {
        return uint32_t{bytes_[at]} << 24 | uint32_t{bytes_[at + 1]} << 16 |
               uint32_t{bytes_[at + 2]} << 8 | bytes_[at + 3];
    }
    // Reads the name at AT into NAME (labels joined by '.'), leaves AT after it in the
    // record. Each pointer must go strictly before where the name's previous part
    // began, so the targets fall and no loop can form; the hop bound caps the work.
    bool name(size_t &at, std::string &name) const {
        name.clear();
        size_t pos = at, hops = 0, limit = at;
        bool jumped = false;
        for (;;) {
            if (pos >= bytes_.size()) return false;
            uint8_t length = bytes_[pos];
            if ((length & kPointerBits) == kPointerBits) {
                if (pos + 1 >= bytes_.size() || ++hops > kMaxPointerHops) return false;
                size_t target = size_t{length & 0x3fu} << 8 | bytes_[pos + 1];
                if (target >= limit) return false;
                if (!jumped) at = pos + 2;
                jumped = true;
                pos = limit = target;
                continue;
            }
            if (length & kPointerBits) return false;  // 0x40 and 0x80: reserved kinds
            if (length == 0) break;
            if (pos + 1 + length > bytes_.size()) return false;
            if (!name.empty()) name += '.';
            name.append(reinterpret_cast<const char *>(&bytes_[pos + 1]), length);
            if (name.size() > kMaxNameLength) return false;
            pos += 1 + length;
        }
        if (!jumped) at = pos + 1;
        return true;
    }
    size_t size() const { return bytes_.size(); }
    const uint8_t *at(size_t offset) const { return bytes_.data() + offset; }

private:
    std::span<const uint8_t> bytes_;
};

bool equalsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return (x | 0x20) == (y | 0x20);
           });
}

// NAME of "NAME.local": one printable label without blanks.
std::optional<std::string> localHostName(std::string_view fqdn) {
    constexpr std::string_view kLocal = ".local";
    if (fqdn.size() <= kLocal.size() || !equalsNoCase(fqdn.substr(fqdn.size() - kLocal.size()), kLocal))
        return std::nullopt;
    std::string_view label = fqdn.substr(0, fqdn.size() - kLocal.size());
    if (label.size() > kMaxMdnsNameLabel || label.find('.') != std::string_view::npos)
        return std::nullopt;
    for (char c : label)
        if (c <= ' ' || c > '~') return std::nullopt;
    return std::string(label);
}

// One resource record at AT; an address record for NAME.local goes to OUT.
bool readRecord(const Reader &reader, size_t &at, std::vector<MdnsAddress> &out) {
    std::string name;
    if (!reader.name(at, name) || at + kFixedRecordPart > reader.size()) return false;
    auto type = reader.u16(at), klass = reader.u16(at);
    uint32_t ttl = reader.u32At(at);
    at += 4;
    auto length = reader.u16(at);
    if (!type || !klass || !length || at + *length > reader.size()) return false;
    size_t data = at;
    at += *length;
    bool isA = *type == kTypeA && *length == 4, isAaaa = *type == kTypeAaaa && *length == 16;
    if ((*klass & kClassMask) != kClassIn || !(isA || isAaaa)) return true;
    std::optional<std::string> host = localHostName(name);
    if (!host) return true;
    MdnsAddress record{*host, isAaaa, {}, ttl};
    std::copy_n(reader.at(data), *length, record.address.begin());
    out.push_back(std::move(record));
    return true;
}

}  // namespace

bool parseMdnsResponse(std::span<const uint8_t> packet, std::vector<MdnsAddress> &out) {
    if (packet.size() < kHeaderSize || packet.size() > kMaxMdnsPacket) return false;
    Reader reader(packet);
    size_t at = 2;
    auto flags = reader.u16(at), questions = reader.u16(at), answers = reader.u16(at);
    auto authority = reader.u16(at), additional = reader.u16(at);
    if (!(*flags & kResponseFlag)) return false;
    std::string skipped;
    for (uint16_t i = 0; i < *questions; ++i) {
        if (i >= kMaxMdnsRecords || !reader.name(at, skipped) || at + 4 > packet.size())
            return false;
        at += 4;
    }
    size_t records = size_t{*answers} + *authority + *additional;
    std::vector<MdnsAddress> found;
    for (size_t i = 0; i < std::min(records, kMaxMdnsRecords); ++i)
        if (!readRecord(reader, at, found)) return false;
    out.insert(out.end(), found.begin(), found.end());
    return true;
}
