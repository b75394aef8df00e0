#include "protocol.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint8_t kFirstPrintable = 0x20;
constexpr uint8_t kLastPrintable = 0x7e;

bool isZeroMac(const uint8_t *mac) {
    return std::all_of(mac, mac + kMacLen, [](uint8_t byte) { return byte == 0; });
}

}  // namespace

ctrlMsg_t makeRequest(uint32_t cmd) {
    ctrlMsg_t msg{};
    msg.status = kCtrlStatusFailed;
    msg.needReply = 1;
    msg.cmd = cmd;
    return msg;
}

void putMac(ctrlMsg_t &msg, const MacAddress &mac) {
    std::memcpy(msg.data, mac.data(), kCtrlMacLen);
}

void putText(ctrlMsg_t &msg, std::string_view text) {
    size_t length = std::min(text.size(), kMaxHostText);
    std::memcpy(msg.data + kCtrlTextOffset, text.data(), length);
    msg.data[kCtrlTextOffset + length] = '\0';
}

std::optional<size_t> firstRejectedByte(const ctrlMsg_t &msg) {
    for (size_t i = kCtrlTextOffset; i < kCtrlDataSize; ++i) {
        uint8_t byte = msg.data[i];
        if (byte == '\0' || byte == '\r' || byte == '\n') return std::nullopt;
        if (byte < kFirstPrintable || byte > kLastPrintable) return i;
    }
    return std::nullopt;
}

std::string replyText(const ctrlMsg_t &msg) {
    const char *text = reinterpret_cast<const char *>(msg.data + kCtrlTextOffset);
    return std::string(text, strnlen(text, kHostTextLen));
}

std::vector<lanHostInfo_t> repliedRecords(const ctrlMsg_t &msg) {
    std::vector<lanHostInfo_t> records;
    for (size_t slot = 0; slot < kRecordsPerReply; ++slot) {
        const uint8_t *at = msg.data + slot * kLanHostInfoSize;
        if (isZeroMac(at)) break;
        lanHostInfo_t record;
        std::memcpy(&record, at, sizeof record);
        records.push_back(record);
    }
    return records;
}

std::vector<lanHostInfo_t> fileRecords(std::string_view bytes) {
    std::vector<lanHostInfo_t> records(bytes.size() / kLanHostInfoSize);
    if (!records.empty())
        std::memcpy(records.data(), bytes.data(), records.size() * kLanHostInfoSize);
    return records;
}

const lanHostInfo_t *findHost(const std::vector<lanHostInfo_t> &hosts, const MacAddress &mac) {
    for (const lanHostInfo_t &host : hosts)
        if (std::memcmp(host.mac, mac.data(), kMacLen) == 0) return &host;
    return nullptr;
}
