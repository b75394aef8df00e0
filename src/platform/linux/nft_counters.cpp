// The nftables side of the switch library's traffic counters: the table is made at
// start-up and removed at exit, hosts are added to and removed from its sets as they
// come and go, and each sampling pass lists the table once and answers from that copy.
// Everything here runs on the main thread.
#include "platform/linux/nft_counters.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/linux/mib_store.h"
#include "platform/linux/read_util.h"
#include "platform/mib.h"
#include "platform/zvt.h"

// --- the listing parser ---

namespace {

constexpr size_t kMaxJsonDepth = 32;  // nft nests six deep; deeper text is not a listing
constexpr size_t kMaxU64Digits = 20;

enum class TokenKind { End, Open, Close, String, Number, Other };

struct Token {
    TokenKind kind = TokenKind::End;
    std::string_view text;  // a string's raw contents, escapes as written
};

// Just enough of JSON to walk a listing: strings, numbers, brackets and a peek for
// the colon after a key. Anything else comes back as Other, one character at a time.
class JsonScanner {
   public:
    explicit JsonScanner(std::string_view text) : rest_(text) {}

    Token next() {
        skipBlanks();
        if (rest_.empty()) return {};
        const char c = rest_.front();
        if (c == '"') return string();
        if (c == '{' || c == '[') return take(TokenKind::Open, 1);
        if (c == '}' || c == ']') return take(TokenKind::Close, 1);
        if (c == '-' || (c >= '0' && c <= '9')) return number();
        return take(TokenKind::Other, 1);
    }

    // Consumes a colon when one comes next, which makes the string before it a key.
    bool takeColon() {
        skipBlanks();
        if (rest_.empty() || rest_.front() != ':') return false;
        rest_.remove_prefix(1);
        return true;
    }

   private:
    void skipBlanks() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
    }

    Token take(TokenKind kind, size_t length) {
        Token token{kind, rest_.substr(0, length)};
        rest_.remove_prefix(token.text.size());
        return token;
    }

    // A number that runs to the end of the text may have been cut short: it ends it.
    Token number() {
        const size_t length = rest_.find_first_not_of("0123456789+-.eE");
        if (length == std::string_view::npos) {
            rest_ = {};
            return {};
        }
        return take(TokenKind::Number, length);
    }

    // An unterminated string ends the text.
    Token string() {
        for (size_t i = 1; i < rest_.size(); ++i) {
            if (rest_[i] == '\\') {
                ++i;
            } else if (rest_[i] == '"') {
                Token token{TokenKind::String, rest_.substr(1, i - 1)};
                rest_.remove_prefix(i + 1);
                return token;
            }
        }
        rest_ = {};
        return {};
    }

    std::string_view rest_;
};

bool parseU64(std::string_view digits, uint64_t &value) {
    if (digits.empty() || digits.size() > kMaxU64Digits) return false;
    value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return false;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) return false;
        value = value * 10 + digit;
    }
    return true;
}

enum class SetKind { Other, Tx, Rx };

struct SetElement {
    std::array<uint8_t, kNftMacBytes> mac{};
    SetKind set = SetKind::Other;
    uint64_t bytes = 0;
};

// Follows the nesting of the listing. Inside an object under the key "set", whose
// "name" (written before its elements) says tx or rx, each "val" MAC is paired with
// the next "bytes" number inside the same element.
class ListingWalker {
   public:
    explicit ListingWalker(std::string_view json) : scanner_(json) {}

    std::vector<SetElement> walk() {
        for (Token token = scanner_.next(); token.kind != TokenKind::End && !full();
             token = scanner_.next()) {
            if (!step(token)) break;
        }
        return std::move(elements_);
    }

   private:
    bool full() const { return elements_.size() >= kMaxNftElements; }

    // False when the text nests deeper than any listing.
    bool step(const Token &token) {
        switch (token.kind) {
            case TokenKind::Open:
                return open(token.text == "{");
            case TokenKind::Close:
                close();
                break;
            case TokenKind::String:
                if (scanner_.takeColon()) {
                    key_ = token.text;
                    return true;
                }
                onString(token.text);
                break;
            case TokenKind::Number:
                onNumber(token.text);
                break;
            case TokenKind::Other:
            case TokenKind::End:
                break;
        }
        key_ = {};
        return true;
    }

    bool open(bool isObject) {
        if (depth_ >= kMaxJsonDepth) return false;
        ++depth_;
        if (isObject && key_ == "set" && setDepth_ == 0) {
            setDepth_ = depth_;
            set_ = SetKind::Other;
        }
        key_ = {};
        return true;
    }

    void close() {
        if (depth_ == 0) return;
        if (depth_ == macDepth_) macDepth_ = 0;
        if (depth_ == setDepth_) setDepth_ = macDepth_ = 0;
        --depth_;
    }

    void onString(std::string_view text) {
        if (setDepth_ == 0) return;
        if (key_ == "name" && depth_ == setDepth_)
            set_ = text == "tx" ? SetKind::Tx : text == "rx" ? SetKind::Rx : SetKind::Other;
        if (key_ == "val" && set_ != SetKind::Other)
            macDepth_ = parseMacText(text, pending_.mac.data()) ? depth_ : 0;
    }

    void onNumber(std::string_view text) {
        if (macDepth_ == 0 || key_ != "bytes") return;
        pending_.set = set_;
        if (parseU64(text, pending_.bytes)) elements_.push_back(pending_);
        macDepth_ = 0;
    }

    JsonScanner scanner_;
    std::string_view key_;  // the key whose value comes next
    size_t depth_ = 0;
    size_t setDepth_ = 0;  // of the set object being read, 0 outside one
    SetKind set_ = SetKind::Other;
    size_t macDepth_ = 0;  // of the element whose MAC is pending, 0 when none
    SetElement pending_;
    std::vector<SetElement> elements_;
};

// One entry per MAC; of a MAC listed twice in one set, the later count wins.
std::vector<NftCounter> mergeByMac(std::vector<SetElement> elements) {
    std::stable_sort(elements.begin(), elements.end(),
                     [](const SetElement &a, const SetElement &b) { return a.mac < b.mac; });
    std::vector<NftCounter> counters;
    for (const SetElement &element : elements) {
        if (counters.empty() || counters.back().mac != element.mac)
            counters.push_back(NftCounter{.mac = element.mac});
        NftCounter &counter = counters.back();
        if (element.set == SetKind::Tx) {
            counter.txBytes = element.bytes;
            counter.inTx = true;
        } else {
            counter.rxBytes = element.bytes;
            counter.inRx = true;
        }
    }
    return counters;
}

}  // namespace

std::vector<NftCounter> parseNftCounterListing(std::string_view json) {
    return mergeByMac(ListingWalker(json).walk());
}

// --- the table and the switch library's counter operations ---

namespace {

// Made in one transaction: the "add" lets the "delete" clear a table that a killed
// daemon left behind, and is harmless when there is none.
constexpr char kCreateTable[] =
    "add table bridge hostrix; delete table bridge hostrix; "
    "table bridge hostrix { "
    "set tx { type ether_addr; counter; }; "
    "set rx { type ether_addr; counter; }; "
    "chain forward_c { type filter hook forward priority 0; policy accept; "
    "ether saddr @tx; ether daddr @rx; }; "
    "chain input_c { type filter hook input priority 0; policy accept; ether saddr @tx; }; "
    "chain output_c { type filter hook output priority 0; policy accept; ether daddr @rx; }; "
    "}";
constexpr char kDeleteTable[] = "delete table bridge hostrix";
constexpr char kListTable[] = "nft -j list table bridge hostrix 2>/dev/null";
constexpr size_t kReadChunkBytes = 16384;
constexpr size_t kMacTextBytes = 18;  // "xx:xx:xx:xx:xx:xx" and its NUL
constexpr size_t kCommandBytes = 64;  // one element command

struct CounterState {
    bool available = false;
    bool removalRegistered = false;
    pid_t owner = 0;  // the process that made the table; a forked child leaves it be
    std::vector<NftCounter> sample;  // of the current sampling pass, sorted by MAC
};

CounterState &counterState() {
    static CounterState state;
    return state;
}

bool runNft(const char *script) {
    return va_cmd_no_error("nft", 1, 1, script) == 0;
}

void removeTable() {
    if (counterState().owner == getpid()) (void)runNft(kDeleteTable);
}

bool nftOnPath() {
    const char *search = std::getenv("PATH");
    std::string dirs = search ? search : "/usr/sbin:/usr/bin:/sbin:/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t end = std::min(dirs.find(':', start), dirs.size());
        if (access((dirs.substr(start, end - start) + "/nft").c_str(), X_OK) == 0) return true;
        start = end + 1;
    }
    return false;
}

void reportUnavailable() {
    if (!nftOnPath())
        (void)std::fprintf(stderr,
                           "hostrix: traffic counters are not available: nft was not found "
                           "(install nftables, or set counters = off in mib.conf)\n");
    else
        (void)std::fprintf(stderr,
                           "hostrix: traffic counters are not available: nft could not make the "
                           "bridge table hostrix (it needs root and nf_tables; counters = off in "
                           "mib.conf stops trying)\n");
}

std::string elementCommand(const char *op, const char *set, const char *mac) {
    char command[kCommandBytes];
    (void)std::snprintf(command, sizeof command, "%s element bridge hostrix %s { %s }; ", op, set,
                        mac);
    return command;
}

// Both sets in one run of nft. Adding before deleting makes the removal of a MAC that
// is not there no error.
std::string registrationScript(const uint8_t *mac, bool on) {
    char text[kMacTextBytes];
    (void)std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                        mac[3], mac[4], mac[5]);
    std::string script;
    for (const char *set : {"tx", "rx"}) {
        script += elementCommand("add", set, text);
        if (!on) script += elementCommand("delete", set, text);
    }
    return script;
}

struct PipeCloser {
    void operator()(FILE *pipe) const { (void)pclose(pipe); }
};

// The JSON listing of the table, at most kMaxNftListingBytes of it; empty on failure.
std::string listTable() {
    std::unique_ptr<FILE, PipeCloser> pipe(popen(kListTable, "re"));
    if (!pipe) return {};
    std::string json;
    char chunk[kReadChunkBytes];
    while (json.size() < kMaxNftListingBytes) {
        size_t want = std::min(sizeof chunk, kMaxNftListingBytes - json.size());
        size_t got = std::fread(chunk, 1, want, pipe.get());
        if (got == 0) break;
        json.append(chunk, got);
    }
    return json;
}

const NftCounter *sampled(const void *entry) {
    std::array<uint8_t, kNftMacBytes> mac;
    std::memcpy(mac.data(), entry, mac.size());
    const std::vector<NftCounter> &sample = counterState().sample;
    auto it = std::lower_bound(sample.begin(), sample.end(), mac,
                               [](const NftCounter &c, const auto &key) { return c.mac < key; });
    return it != sample.end() && it->mac == mac ? &*it : nullptr;
}

}  // namespace

int zvt_fc_host_police_control_mib_counter_init() {
    CounterState &state = counterState();
    state.available = false;
    state.sample.clear();
    if (mibConfigCurrent().counters == MibCounterSource::Off) return 0;
    if (!runNft(kCreateTable)) {
        reportUnavailable();
        return -1;
    }
    state.available = true;
    state.owner = getpid();
    // The daemon returns from main when it stops, so the table goes with it.
    if (!state.removalRegistered) state.removalRegistered = std::atexit(removeTable) == 0;
    return 0;
}

int zvt_update_lan_hpc_for_mib(void *entry, int on) {
    if (!entry || !counterState().available) return -1;
    return runNft(registrationScript(static_cast<const uint8_t *>(entry), on != 0).c_str()) ? 0
                                                                                            : -1;
}

// The second counter set has no source here.
int zvt_fc_update_lan_hpc_for_mib(void *, int) {
    return 0;
}

int zvt_host_police_control_mib_counter_get_begin() {
    CounterState &state = counterState();
    state.sample.clear();
    if (!state.available) return 0;
    state.sample = parseNftCounterListing(listTable());
    return 0;
}

int zvt_host_police_control_mib_counter_get_end() {
    counterState().sample.clear();
    return 0;
}

int zvt_host_police_control_mib_counter_get(void *entry, uint64_t pair[2]) {
    if (!entry || !pair) return -1;
    const NftCounter *counter = sampled(entry);
    if (!counter || !counter->inTx || !counter->inRx) return -1;
    pair[0] = counter->txBytes;
    pair[1] = counter->rxBytes;
    return 0;
}

int zvt_fc_host_police_control_mib_counter_get(void *, uint64_t *) {
    return -1;
}
