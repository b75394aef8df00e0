#include "oui.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <map>

#include "core/unique_fd.h"

namespace {

// Layout: magic, four counts (large, medium, small, name bytes), the three sorted
// tables, then the names, each ending in NUL. Every number is little-endian: the
// file is built on the build machine, which may differ from the box (a big-endian
// MIPS router), and a big-endian reader swaps as it reads.
constexpr char kMagic[8] = {'H', 'X', 'O', 'U', 'I', '1', 0, 0};
constexpr size_t kHeaderSize = sizeof kMagic + 4 * sizeof(uint32_t);
constexpr size_t kLargeDigits = 6, kMediumDigits = 7, kSmallDigits = 9;
constexpr size_t kMaxNameLen = 127;

std::string_view trimBlanks(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\r')) text.remove_suffix(1);
    return text;
}

// Splits one CSV line into fields; quoted fields may hold commas and "" for a quote.
std::vector<std::string> csvFields(std::string_view line) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (quoted && c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
            fields.back() += '"';
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (c == ',' && !quoted) {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    return fields;
}

bool parseHex(std::string_view text, uint64_t &value) {
    value = 0;
    for (char c : text) {
        int digit = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                           : -1;
        if (digit < 0) return false;
        value = value << 4 | static_cast<uint64_t>(digit);
    }
    return !text.empty();
}

bool addRow(const std::vector<std::string> &fields, OuiRows &rows) {
    if (fields.size() < 3) return false;
    std::string_view assignment = trimBlanks(fields[1]);
    std::string name(trimBlanks(fields[2]).substr(0, kMaxNameLen));
    uint64_t key = 0;
    if (name.empty() || !parseHex(assignment, key)) return false;
    switch (assignment.size()) {
        case kLargeDigits: rows.large.emplace_back(static_cast<uint32_t>(key), name); return true;
        case kMediumDigits: rows.medium.emplace_back(static_cast<uint32_t>(key), name); return true;
        case kSmallDigits: rows.small.emplace_back(key, name); return true;
        default: return false;
    }
}

template <typename Key>
void sortUnique(std::vector<std::pair<Key, std::string>> &rows) {
    std::stable_sort(rows.begin(), rows.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    rows.erase(std::unique(rows.begin(), rows.end(),
                           [](const auto &a, const auto &b) { return a.first == b.first; }),
               rows.end());
}

// The file's byte order to the machine's and back (the same swap both ways).
constexpr uint32_t littleEndian(uint32_t value) {
    if constexpr (std::endian::native == std::endian::big) return __builtin_bswap32(value);
    return value;
}

void appendU32(std::string &out, uint32_t value) {
    value = littleEndian(value);
    out.append(reinterpret_cast<const char *>(&value), sizeof value);
}

class NameTable {
public:
    uint32_t offsetOf(const std::string &name) {
        auto [at, added] = offsets_.try_emplace(name, static_cast<uint32_t>(blob_.size()));
        if (added) blob_.append(name).push_back('\0');
        return at->second;
    }
    const std::string &blob() const { return blob_; }

private:
    std::map<std::string, uint32_t> offsets_;
    std::string blob_;
};

uint32_t u32At(const uint8_t *at) {
    uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return littleEndian(value);
}

template <typename Entry>
const Entry *findKey(std::span<const Entry> table, uint64_t key) {
    auto keyOf = [](const Entry &e) {
        if constexpr (sizeof(Entry) == 8) return uint64_t{littleEndian(e.key)};
        else return uint64_t{littleEndian(e.keyHigh)} << 32 | littleEndian(e.keyLow);
    };
    auto at = std::lower_bound(table.begin(), table.end(), key,
                               [&](const Entry &e, uint64_t k) { return keyOf(e) < k; });
    return at != table.end() && keyOf(*at) == key ? &*at : nullptr;
}

}  // namespace

size_t addOuiCsv(std::string_view csv, OuiRows &rows) {
    size_t taken = 0;
    while (!csv.empty()) {
        size_t end = csv.find('\n');
        std::string_view line = csv.substr(0, end);
        csv = end == std::string_view::npos ? std::string_view{} : csv.substr(end + 1);
        if (line.starts_with("MA-") || line.starts_with("IAB"))
            taken += addRow(csvFields(line), rows) ? 1 : 0;
    }
    return taken;
}

std::string buildOuiFile(OuiRows rows) {
    sortUnique(rows.large);
    sortUnique(rows.medium);
    sortUnique(rows.small);
    NameTable names;
    std::string tables;
    for (const auto &[key, name] : rows.large) appendU32(tables, key), appendU32(tables, names.offsetOf(name));
    for (const auto &[key, name] : rows.medium) appendU32(tables, key), appendU32(tables, names.offsetOf(name));
    for (const auto &[key, name] : rows.small) {
        appendU32(tables, static_cast<uint32_t>(key >> 32));
        appendU32(tables, static_cast<uint32_t>(key));
        appendU32(tables, names.offsetOf(name));
    }
    std::string out(kMagic, sizeof kMagic);
    appendU32(out, static_cast<uint32_t>(rows.large.size()));
    appendU32(out, static_cast<uint32_t>(rows.medium.size()));
    appendU32(out, static_cast<uint32_t>(rows.small.size()));
    appendU32(out, static_cast<uint32_t>(names.blob().size()));
    return out + tables + names.blob();
}

OuiDb::OuiDb(OuiDb &&other) noexcept { *this = std::move(other); }

OuiDb &OuiDb::operator=(OuiDb &&other) noexcept {
    if (this == &other) return *this;
    unmap();
    large_ = other.large_, medium_ = other.medium_, small_ = other.small_;
    names_ = other.names_, size_ = other.size_;
    mapped_ = std::exchange(other.mapped_, nullptr);
    // Moving a long string keeps its buffer, so the views above stay valid; a short
    // one would move its bytes, hence the fresh index.
    owned_ = std::move(other.owned_);
    if (!owned_.empty()) index(reinterpret_cast<const uint8_t *>(owned_.data()), owned_.size());
    other.large_ = {}, other.medium_ = {}, other.small_ = {}, other.names_ = {}, other.size_ = 0;
    return *this;
}

OuiDb::~OuiDb() { unmap(); }

void OuiDb::unmap() {
    if (mapped_) munmap(mapped_, size_);
    mapped_ = nullptr;
    large_ = {}, medium_ = {}, small_ = {}, names_ = {}, size_ = 0;
    owned_.clear();
}

bool OuiDb::index(const uint8_t *data, size_t size) {
    if (size < kHeaderSize || std::memcmp(data, kMagic, sizeof kMagic) != 0) return false;
    const uint8_t *counts = data + sizeof kMagic;
    uint64_t large = u32At(counts), medium = u32At(counts + 4), small = u32At(counts + 8);
    uint64_t nameBytes = u32At(counts + 12);
    uint64_t tableBytes = (large + medium) * sizeof(Entry32) + small * sizeof(Entry64);
    if (kHeaderSize + tableBytes + nameBytes != size) return false;
    // Each part is now known to lie within SIZE, so each count fits a size_t.
    auto count = [](uint64_t n) { return static_cast<size_t>(n); };
    const uint8_t *names = data + kHeaderSize + tableBytes;
    if (nameBytes != 0 && names[nameBytes - 1] != '\0') return false;
    const auto *l = reinterpret_cast<const Entry32 *>(data + kHeaderSize);
    large_ = {l, count(large)}, medium_ = {l + large, count(medium)};
    small_ = {reinterpret_cast<const Entry64 *>(l + large + medium), count(small)};
    names_ = {reinterpret_cast<const char *>(names), count(nameBytes)};
    auto badName = [&](uint32_t offset) { return littleEndian(offset) >= nameBytes; };
    for (const auto &e : large_) if (badName(e.name)) return false;
    for (const auto &e : medium_) if (badName(e.name)) return false;
    for (const auto &e : small_) if (badName(e.name)) return false;
    size_ = size;
    return true;
}

bool OuiDb::load(const std::string &path) {
    unmap();
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (!fd.valid() || fstat(fd.get(), &info) < 0 || info.st_size <= 0) return false;
    auto size = static_cast<size_t>(info.st_size);
    void *data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (data == MAP_FAILED) return false;
    mapped_ = data, size_ = size;
    if (index(static_cast<const uint8_t *>(data), size)) return true;
    unmap();
    return false;
}

bool OuiDb::adopt(std::string bytes) {
    unmap();
    owned_ = std::move(bytes);
    // The tables are read as 32-bit words; std::string's buffer is aligned for them.
    if (index(reinterpret_cast<const uint8_t *>(owned_.data()), owned_.size())) return true;
    unmap();
    return false;
}

std::string_view OuiDb::lookup(std::span<const uint8_t, 6> mac) const {
    uint64_t large = uint64_t{mac[0]} << 16 | uint64_t{mac[1]} << 8 | mac[2];
    uint64_t medium = large << 4 | mac[3] >> 4;
    uint64_t small = large << 12 | uint64_t{mac[3]} << 4 | mac[4] >> 4;
    const uint32_t *stored = nullptr;
    if (const Entry64 *e = findKey(small_, small)) stored = &e->name;
    else if (const Entry32 *m = findKey(medium_, medium)) stored = &m->name;
    else if (const Entry32 *l = findKey(large_, large)) stored = &l->name;
    if (!stored) return {};
    uint32_t name = littleEndian(*stored);
    const char *text = names_.data() + name;
    return {text, strnlen(text, names_.size() - name)};
}
