#!/usr/bin/env python3
"""Counts the system calls that the library makes for a message, and fails where they are not those of the table.

syscalls.py BENCH, the folder of the bench's programs. strace sees two runs of each row, one of twice as many messages:
what the second has more is what the messages made.
"""

import collections
import os
import re
import sys
import tempfile

import processes

MESSAGES = 200
# For each row: how it is run, and what a message makes. The poll by which the client waits is not the library's.
ROWS = {
    "echo plain 16 B": ("echo", False, 16, {"epoll_wait": 1, "recvfrom": 2, "sendto": 1}),
    "echo plain 1 KiB": ("echo", False, 1 << 10, {"epoll_wait": 1, "recvfrom": 3, "sendto": 1}),
    "echo plain 16 KiB": ("echo", False, 16 << 10, {"epoll_wait": 1, "recvfrom": 3, "sendto": 1}),
    "echo TLS 16 B": ("echo", True, 16, {"epoll_wait": 1, "read": 2, "write": 1}),
    "echo TLS 1 KiB": ("echo", True, 1 << 10, {"epoll_wait": 1, "read": 2, "write": 1}),
    "flood plain 16 B": ("flood", False, 16, {"epoll_wait": 1, "recvfrom": 2}),
    # None for a run of messages; where the client is faster than the server, a run is short. 1.9 were one for each.
    "flood TLS 16 KiB": ("flood", True, 16 << 10, {"epoll_wait": 2, "read": 2.3, "epoll_ctl": 0.4}),
}
IGNORED = {"poll"}
TOLERANCE = 0.15
FLOOD_TOLERANCE = 0.5  # a stream is cut where the kernel's buffers end: that moves
FLOOD_TOLERANCE_TLS = 1.0  # and so do the ends of runs out of the records
FLOOD_RUNS = 4  # a server that has to wait for a processor makes runs short, which adds calls: the least of these count


def count(folder, ports, row, messages):
    kind, tls, size, _ = ROWS[row]
    with tempfile.NamedTemporaryFile("r", encoding="ascii", errors="replace") as trace:
        processes.run("strace", "-o", trace.name, os.path.join(folder, "bench-library"), "--port",
                      str(ports["tls" if tls else "plain"]), *(["--tls"] if tls else []), "--job", kind, "--size",
                      str(size), "--messages", str(messages), "--waiting", limit_s=60)
        return collections.Counter(re.findall(r"^(\w+)\(", trace.read(), re.M))


def a_message(folder, ports, row):
    """The calls that one message makes, by name."""
    runs = FLOOD_RUNS if ROWS[row][0] == "flood" else 1
    few, many = (min((count(folder, ports, row, MESSAGES * times) for _ in range(runs)), key=collections.Counter.total)
                 for times in (1, 2))
    made = {name: (many[name] - few[name]) / MESSAGES for name in many if name not in IGNORED}
    return {name: calls for name, calls in made.items() if abs(calls) > TOLERANCE}


def as_expected(kind, tls, made, expected):
    if kind != "flood" or not expected:
        return abs(made - expected) <= TOLERANCE
    return abs(made - expected) <= (FLOOD_TOLERANCE_TLS if tls else FLOOD_TOLERANCE)


def main():
    folder, faults = sys.argv[1], 0
    with processes.load_server(folder) as (_, ports):
        for row, (kind, tls, _, expected) in ROWS.items():
            made = a_message(folder, ports, row)
            wrong = [name for name in {*made, *expected}
                     if not as_expected(kind, tls, made.get(name, 0), expected.get(name, 0))]
            print(f"{row}: {sum(made.values()):.2f}:", ", ".join(f"{n} {c:.2f}" for n, c in sorted(made.items())),
                  f"(not as expected: {', '.join(sorted(wrong))})" if wrong else "")
            faults += len(wrong)
    if faults:
        raise processes.Failure(f"{faults} counts are not those of the table")


if __name__ == "__main__":
    try:
        main()
    except processes.Failure as failure:
        sys.exit(f"syscalls: {failure}")
