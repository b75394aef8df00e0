// Parser throughput on the traffic the capture filter lets through: ARP replies,
// IGMP reports and DHCP ACKs from a LAN of 50 devices, so that every frame refreshes
// an entry of a cache holding those devices and the gateway, as on a busy home network.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "platform/fake/fake_platform.h"
#include "sniffer/neighbor_cache.h"
#include "sniffer/packet_parser.h"
#include "sniffer/sniffer.h"

namespace {

using Frame = std::vector<uint8_t>;
constexpr uint8_t kDevices = 50;
constexpr size_t kBootpFixedLen = 240;

// Byte by byte: GCC 12 misreads a ranged insert at -O3 as out of bounds.
void put(Frame &f, std::initializer_list<uint8_t> bytes) {
    for (uint8_t byte : bytes) f.push_back(byte);
}
void put16(Frame &f, size_t value) {
    put(f, {uint8_t(value >> 8), uint8_t(value)});
}

Frame ethernet(uint8_t device, uint16_t type) {
    Frame f(6, 0xff);                          // destination: broadcast
    put(f, {0x02, 0x11, 0x22, 0, 0, device});  // source MAC
    put16(f, type);                            // EtherType
    return f;
}

Frame arpReply(uint8_t device) {
    Frame f = ethernet(device, 0x0806);
    put(f, {0, 1, 0x08, 0x00, 6, 4, 0, 2});  // Ethernet, IPv4, sizes, reply
    put(f, {0x02, 0x11, 0x22, 0, 0, device, 192, 168, 1, uint8_t(100 + device)});  // sender
    put(f, {0x02, 0xaa, 0, 0, 0, 1, 192, 168, 1, 1});                              // target
    return f;
}

Frame ipv4(uint8_t device, uint8_t proto, size_t payloadLen) {
    Frame f = ethernet(device, 0x0800);
    put(f, {0x45, 0});                     // version, header length; TOS
    put16(f, 20 + payloadLen);             // total length
    put(f, {0, 0, 0, 0, 1, proto, 0, 0});  // id, fragment, TTL, protocol, checksum
    put(f, {192, 168, 1, uint8_t(100 + device), 224, 0, 0, 22});  // source, destination
    return f;
}

Frame igmpReport(uint8_t device) {
    Frame f = ipv4(device, 2, 8);
    put(f, {0x16, 0, 0, 0, 239, 255, 255, 250});  // v2 report for a group
    return f;
}

Frame dhcpAck(uint8_t device) {
    Frame options = {53, 1, 5, 3, 4, 192, 168, 1, 1, 12, 6, 'd', 'e', 'v', 'i', 'c', 'e', 255};
    Frame f = ipv4(device, 17, 8 + kBootpFixedLen + options.size());
    put(f, {0, 67, 0, 67});                         // ports
    put16(f, 8 + kBootpFixedLen + options.size());  // UDP length
    put(f, {0, 0});                                 // checksum
    Frame bootp(kBootpFixedLen, 0);
    bootp[0] = 2;  // op: reply
    bootp[16] = 192, bootp[17] = 168, bootp[18] = 1, bootp[19] = uint8_t(100 + device);  // yiaddr
    bootp[28] = 0x02, bootp[29] = 0x11, bootp[30] = 0x22, bootp[33] = device;            // chaddr
    for (const Frame *part : {&bootp, &options})
        for (uint8_t byte : *part) f.push_back(byte);
    return f;
}

int namedDevices() {
    int named = 0;
    for (uint8_t device = 0; device < kDevices; ++device) {
        uint8_t mac[] = {0x02, 0x11, 0x22, 0, 0, device};
        char name[kNeighborNameLen] = {};
        named += getSnifferNeighborHost(mac, nullptr, name, sizeof name) && name[0];
    }
    return named;
}

void BM_ParseMixedTraffic(benchmark::State &state) {
    fake::reset();
    setSnifferMonitorLogLevel(kSnifferError);
    aging_neighbor_host(1);
    std::vector<Frame> frames;
    for (uint8_t device = 0; device < kDevices; ++device)
        for (Frame f : {arpReply(device), igmpReport(device), dhcpAck(device)}) frames.push_back(f);
    size_t next = 0;
    for (auto _ : state) {
        const Frame &frame = frames[next];
        next = next + 1 == frames.size() ? 0 : next + 1;
        benchmark::DoNotOptimize(parse_packet(frame.data(), frame.size()));
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["named_devices"] = namedDevices();  // 50 when every kind was decoded
    aging_neighbor_host(1);
}
BENCHMARK(BM_ParseMixedTraffic);

}  // namespace
