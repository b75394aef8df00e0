// Store-library helpers that behave the same on every backend: MAC text and
// comparison, the whole-file record lock, and walking the lists the sources return.
#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/node_pool.h"
#include "platform/mib.h"

namespace {

constexpr int kMacBytes = 6;

// Discovery converts every MAC of every source line in each cycle.
constexpr auto kHexValues = [] {
    std::array<signed char, 256> values{};
    values.fill(-1);
    for (int i = 0; i < 10; ++i) values['0' + i] = static_cast<signed char>(i);
    for (int i = 0; i < 6; ++i) {
        values['a' + i] = static_cast<signed char>(10 + i);
        values['A' + i] = static_cast<signed char>(10 + i);
    }
    return values;
}();

int hexValue(char c) { return kHexValues[static_cast<unsigned char>(c)]; }

// One group of one or two hex digits at TEXT; advances TEXT past it.
bool parseMacGroup(const char *&text, unsigned char &out) {
    int high = hexValue(text[0]);
    if (high < 0) return false;
    int low = hexValue(text[1]);
    text += low < 0 ? 1 : 2;
    out = static_cast<unsigned char>(low < 0 ? high : high * 16 + low);
    return true;
}

// "xx:xx:xx:xx:xx:xx", the form every kernel table and tool prints, read in one pass.
bool parseCanonicalMac(const char *text, unsigned char *out) {
    constexpr size_t kCanonicalLength = 17;
    if (strnlen(text, kCanonicalLength + 1) != kCanonicalLength) return false;
    for (int i = 0; i < kMacBytes; ++i) {
        const char *group = text + 3 * i;
        const int high = hexValue(group[0]);
        const int low = hexValue(group[1]);
        if (high < 0 || low < 0 || (i > 0 && group[-1] != ':')) return false;
        out[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return true;
}

// Groups of one or two hex digits between colons ("a:b:c:d:e:f" too).
bool parseLooseMac(const char *text, unsigned char *out) {
    for (int i = 0; i < kMacBytes; ++i) {
        if (i > 0 && *text++ != ':') return false;
        if (!parseMacGroup(text, out[i])) return false;
    }
    return *text == '\0';
}

}  // namespace

int convertMacFormat(const char *text, unsigned char *out) {
    if (!text || !out) return 0;
    unsigned char mac[kMacBytes];
    if (!parseCanonicalMac(text, mac) && !parseLooseMac(text, mac)) return 0;
    std::memcpy(out, mac, sizeof mac);
    return 1;
}

int isZeroMac(const unsigned char *mac) {
    if (!mac) return 1;
    for (int i = 0; i < kMacBytes; ++i)
        if (mac[i] != 0) return 0;
    return 1;
}

int macAddrCmp(const void *a, const void *b) {
    if (!a || !b) return a == b ? 0 : 1;
    return std::memcmp(a, b, kMacBytes);
}

namespace {

int setWholeFileLock(int fd, int type, int command) {
    if (type != kLockWrite && type != kLockUnlock) return -1;
    struct flock lock {};
    lock.l_type = type == kLockWrite ? F_WRLCK : F_UNLCK;
    lock.l_whence = SEEK_SET;  // start 0, length 0: the whole file, however long it grows
    int result;
    do {
        result = fcntl(fd, command, &lock);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : -1;
}

}  // namespace

int flock_set(int fd, int type) {
    return setWholeFileLock(fd, type, F_SETLKW);
}

int flock_try_set(int fd, int type) {
    return setWholeFileLock(fd, type, F_SETLK);
}

namespace {
// A bridge keeps a few hundred MACs on a home LAN; nodes beyond that go back to malloc.
NodePool<fdb, 1024> fdbNodes;
}  // namespace

fdb *newFdbNode() { return fdbNodes.take(); }

void free_bridge_fdb(fdb **head) { fdbNodes.giveList(head); }

void getDhcpClientInfo(dhcp_lease *array, int count, const unsigned char *mac,
                       dhcp_lease **record) {
    if (!array || !mac || !record) return;
    for (int i = 0; i < count; ++i) {
        if (std::memcmp(array[i].mac, mac, static_cast<size_t>(kMacBytes)) == 0) {
            *record = &array[i];
            return;
        }
    }
}
