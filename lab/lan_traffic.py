#!/usr/bin/env python3
"""Traffic that a LAN device makes, for the end-to-end tests, the capture bench and by hand.
Run inside a client namespace (ip netns exec hx-NAME python3 lan_traffic.py ...).

  igmp-join GROUP SECONDS          join a multicast group (the kernel sends IGMP reports)
  udp-burst PORT COUNT PAYLOAD     COUNT broadcast UDP datagrams to PORT, PAYLOAD bytes each
  tcp-sink PORT                    accept one connection, read it to the end, print the count
  tcp-send HOST PORT BYTES RATE    send BYTES at RATE bytes/s (paced in 64 KiB chunks)
  arp-replies IFACE COUNT RATE [random]
                                   COUNT broadcast ARP replies from 50 made-up hosts, at RATE/s;
                                   random: each from a new random sender MAC and address, all
                                   from IFACE's own Ethernet address (the bridge learns one MAC)
  arp-hosts IFACE COUNT            COUNT made-up hosts 0a:7a:00:00:HH:LL, each sending one
                                   gratuitous ARP reply from its own MAC with 10.77.2.1 onwards
  arp-churn IFACE TOTAL WINDOW SECONDS
                                   for SECONDS, every 2 s WINDOW of TOTAL such hosts speak, the
                                   window moving on by a quarter each time
"""
import os
import socket
import struct
import sys
import time

CHUNK = 64 * 1024


def igmp_join(group, seconds):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    request = struct.pack("4s4s", socket.inet_aton(group), socket.inet_aton("0.0.0.0"))
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, request)
    time.sleep(float(seconds))


def udp_burst(port, count, payload):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    data = b"x" * int(payload)
    for _ in range(int(count)):
        sock.sendto(data, ("255.255.255.255", int(port)))


def tcp_sink(port):
    server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind(("0.0.0.0", int(port)))
    server.listen(1)
    conn, _ = server.accept()
    total = 0
    while True:
        data = conn.recv(CHUNK)
        if not data:
            break
        total += len(data)
    print(total)


def paced(count, rate, step):
    """Yields COUNT times, never ahead of RATE per second (STEP units per yield)."""
    start = time.monotonic()
    for i in range(count):
        ahead = start + i * step / rate - time.monotonic()
        if ahead > 0:
            time.sleep(ahead)
        yield i


def tcp_send(host, port, total, rate):
    total, rate = int(total), float(rate)
    sock = socket.create_connection((host, int(port)))
    data = b"y" * CHUNK
    chunks = (total + CHUNK - 1) // CHUNK
    for i in paced(chunks, rate, CHUNK):
        sock.sendall(data[: min(CHUNK, total - i * CHUNK)])
    sock.close()


def arp_frame(source, mac, ip):
    return (b"\xff" * 6 + source + b"\x08\x06"        # Ethernet: broadcast, ARP
            + struct.pack("!HHBBH", 1, 0x0800, 6, 4, 2)  # Ethernet/IPv4, reply
            + mac + ip + b"\xff" * 6 + ip)              # sender, target


def arp_reply(index):
    mac = bytes([0x0A, 0x78, 0, 0, 0, index])
    return arp_frame(mac, mac, socket.inet_aton("10.77.1.%d" % (index + 1)))


def random_sender_replies(source):
    """Endless replies, each naming a fresh locally administered MAC and 10.78.x.y."""
    while True:
        noise = os.urandom(6)
        yield arp_frame(source, b"\x0a\x79" + noise[:4], b"\x0a\x4e" + noise[4:])


def arp_replies(iface, count, rate, mode="fixed"):
    sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    sock.bind((iface, 0))
    if mode == "random":
        frames = random_sender_replies(sock.getsockname()[4])
    else:
        fixed = [arp_reply(i) for i in range(50)]
        frames = (fixed[i % len(fixed)] for i in range(int(count)))
    batch = 100  # frames per pacing step, so the pacing itself stays cheap
    for _ in paced(int(count) // batch, float(rate), batch):
        for _ in range(batch):
            sock.send(next(frames))


def made_up_host(i):
    mac = bytes([0x0A, 0x7A, 0, 0, i >> 8 & 0xFF, i & 0xFF])
    return arp_frame(mac, mac, bytes([10, 77, 2 + i // 250 % 250, 1 + i % 250]))


def arp_hosts(iface, count):
    sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    sock.bind((iface, 0))
    for i in range(int(count)):
        sock.send(made_up_host(i))


def arp_churn(iface, total, window, seconds):
    """Every 2 s the made-up hosts of a window of the TOTAL speak; the window moves on
    by a quarter each time, so hosts fall silent and new ones come, for SECONDS."""
    total, window = int(total), int(window)
    sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    sock.bind((iface, 0))
    start, deadline = 0, time.monotonic() + float(seconds)
    while time.monotonic() < deadline:
        for i in range(start, start + window):
            sock.send(made_up_host(i % total))
        start = (start + max(1, window // 4)) % total
        time.sleep(2)


COMMANDS = {
    "igmp-join": igmp_join,
    "udp-burst": udp_burst,
    "tcp-sink": tcp_sink,
    "tcp-send": tcp_send,
    "arp-replies": arp_replies,
    "arp-hosts": arp_hosts,
    "arp-churn": arp_churn,
}

if __name__ == "__main__":
    if len(sys.argv) < 2 or sys.argv[1] not in COMMANDS:
        sys.exit(__doc__)
    COMMANDS[sys.argv[1]](*sys.argv[2:])
