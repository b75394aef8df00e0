// Vendor names by MAC prefix, longest first: the IEEE MA-S (36-bit, with the older
// IAB), MA-M (28-bit) and MA-L (24-bit) registries. The build turns the system's
// ieee-data CSV files into one compact file (sorted keys, one copy of each name);
// the agent maps it read-only, so only the pages a lookup touches are resident.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Registry rows, as the CSV files give them.
struct OuiRows {
    std::vector<std::pair<uint32_t, std::string>> large;   // 24-bit prefix (MA-L)
    std::vector<std::pair<uint32_t, std::string>> medium;  // 28-bit prefix (MA-M)
    std::vector<std::pair<uint64_t, std::string>> small;   // 36-bit prefix (MA-S, IAB)
};

// Adds the rows of one registry CSV ("Registry,Assignment,Organization Name,...");
// the width of each assignment picks its table. Returns the rows taken.
size_t addOuiCsv(std::string_view csv, OuiRows &rows);
// The file's bytes.
std::string buildOuiFile(OuiRows rows);

class OuiDb {
public:
    OuiDb() = default;
    OuiDb(const OuiDb &) = delete;
    OuiDb &operator=(const OuiDb &) = delete;
    OuiDb(OuiDb &&other) noexcept;
    OuiDb &operator=(OuiDb &&other) noexcept;
    ~OuiDb();

    // Maps the file at PATH; false (and empty) when it is missing or malformed.
    bool load(const std::string &path);
    // The same over bytes held by the caller, for tests and the fuzzer.
    bool adopt(std::string bytes);

    // The vendor of the six-byte MAC, or "" when no registry lists it.
    std::string_view lookup(std::span<const uint8_t, 6> mac) const;
    size_t entries() const { return large_.size() + medium_.size() + small_.size(); }
    size_t bytes() const { return size_; }

private:
    bool index(const uint8_t *data, size_t size);
    void unmap();

    struct Entry32 {
        uint32_t key;
        uint32_t name;
    };
    struct Entry64 {
        uint32_t keyHigh;
        uint32_t keyLow;
        uint32_t name;
    };
    std::span<const Entry32> large_, medium_;
    std::span<const Entry64> small_;
    std::string_view names_;
    void *mapped_ = nullptr;  // the mapping, when loaded from a file
    size_t size_ = 0;
    std::string owned_;  // the bytes, when adopted
};
