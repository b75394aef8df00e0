#!/usr/bin/env python3
"""Measurements for bench/scale_lab.sh, speaking the daemon's control protocol.

  arrivals SOCKET LEASES COUNT SECONDS
      until COUNT MACs have been both leased and reported, or SECONDS pass: notes when
      each MAC's line first shows in the lease file and when a `new` query first
      reports it; prints "arrivals N of COUNT p50 S max S" (report minus lease time)
  rtt SOCKET SECONDS
      `get max-hosts` round trips one after the other; prints "rtt N/s p99 MS"
  null-server SOCKET
      answers every request with a zeroed message at once (the baseline for rtt)
"""
import os
import socket
import struct
import sys
import time

MSG_SIZE = 4136
HEADER = struct.Struct("=QQQB3xIII")
RECORD_SIZE = 944
DATA_OFFSET = 40
CMD_GET_NEW_DEVICE = 0x1
CMD_GET_MAX_HOSTS = 0x8


def request(path, cmd):
    msg = HEADER.pack(0, 0, 0, 1, cmd, 0, 0).ljust(MSG_SIZE, b"\0")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        sock.settimeout(5)
        sock.connect(path)
        sock.sendall(msg)
        reply = b""
        while len(reply) < MSG_SIZE:
            chunk = sock.recv(MSG_SIZE - len(reply))
            if not chunk:
                break
            reply += chunk
    return reply


def reported_macs(reply):
    macs = []
    for offset in range(DATA_OFFSET, len(reply) - RECORD_SIZE + 1, RECORD_SIZE):
        mac = reply[offset:offset + 6]
        if mac != b"\0" * 6:
            macs.append(":".join(f"{b:02x}" for b in mac))
    return macs


def leased_macs(path):
    try:
        with open(path) as leases:
            return [line.split()[1] for line in leases if len(line.split()) > 2]
    except OSError:
        return []


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))] if ordered else float("nan")


def arrivals(path, lease_file, count, seconds):
    leased, reported = {}, {}
    deadline = time.monotonic() + float(seconds)
    count = int(count)
    while time.monotonic() < deadline:
        now = time.monotonic()
        for mac in leased_macs(lease_file):
            leased.setdefault(mac, now)
        while True:  # four records per reply: ask until a reply has none
            macs = reported_macs(request(path, CMD_GET_NEW_DEVICE))
            now = time.monotonic()
            for mac in macs:
                reported.setdefault(mac, now)
            if not macs:
                break
        both = [mac for mac in leased if mac in reported]
        if len(both) >= count:
            break
        time.sleep(0.02)
    delays = [max(0.0, reported[mac] - leased[mac]) for mac in leased if mac in reported]
    print(f"arrivals {len(delays)} of {count} p50 {percentile(delays, 0.5):.2f} s "
          f"max {max(delays, default=float('nan')):.2f} s")


def rtt(path, seconds):
    times = []
    deadline = time.monotonic() + float(seconds)
    while time.monotonic() < deadline:
        start = time.monotonic()
        request(path, CMD_GET_MAX_HOSTS)
        times.append(time.monotonic() - start)
    print(f"rtt {len(times) / float(seconds):.0f}/s p99 {percentile(times, 0.99) * 1000:.2f} ms")


def null_server(path):
    if os.path.exists(path):
        os.unlink(path)
    server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    server.bind(path)
    server.listen(64)
    reply = bytes(MSG_SIZE)
    while True:
        conn, _ = server.accept()
        with conn:
            conn.recv(MSG_SIZE)
            conn.sendall(reply)


def main():
    commands = {"arrivals": (arrivals, 4), "rtt": (rtt, 2), "null-server": (null_server, 1)}
    if len(sys.argv) < 2 or sys.argv[1] not in commands:
        sys.exit(__doc__)
    function, argc = commands[sys.argv[1]]
    if len(sys.argv) != argc + 2:
        sys.exit(__doc__)
    function(*sys.argv[2:])


if __name__ == "__main__":
    main()
