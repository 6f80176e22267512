#!/usr/bin/env python3
"""Counts what the library costs in instructions, and compares with the table.

cost.py check|write BENCH TABLE

BENCH is the folder of the bench's programs, TABLE is bench/cost.txt. valgrind's callgrind counts what the library runs
itself and what it has the C library and json-c run; OpenSSL's share, the program's and the server's do not count.
`check` fails where a row has grown by more than 5 %, and where a message costs more than 10 % more at 128 tunnels than
at one, if the table says "growth enforced" and not "growth reported". `write` writes the counts into TABLE.
"""

import collections
import contextlib
import os
import re
import sys
import tempfile

import processes

ALLOWED = 1.05
ALLOWED_BY_TUNNELS = 1.10
MANY = 128
SIZES = {16: "16 B", 1 << 10: "1 KiB", 16 << 10: "16 KiB"}
LIBRARY = re.compile(r"/libcloudtunnel\.so")
NOT_COUNTED = re.compile(r"/lib(ssl|crypto)\.so|/bench-[a-z]+$")


def echo_row(transport, size, tunnels):
    return f"echo {transport} {SIZES[size]}, {tunnels} tunnel{'s' if tunnels > 1 else ''}"


def all_rows():
    """By name: program, transport, and how often what is counted is done; the other arguments."""
    rows = {}
    for transport in ("plain", "TLS"):
        for size in SIZES:
            for tunnels in (1, MANY):
                rows[echo_row(transport, size, tunnels)] = (
                    "library", transport, 4 * MANY, ["--job", "echo", "--size", str(size), "--tunnels", str(tunnels)])
        rows[f"set-up {transport}"] = ("library", transport, 20, ["--job", "setup"])
    rows["timer pass, 200 timers"] = ("probe", None, 100, ["--job", "timers"])
    rows["idle turn"] = ("probe", None, 1000, ["--job", "idle"])
    return rows


def library_share(lines):
    """The instructions of a callgrind profile that are the library's."""
    total = 0
    where = callee = ""
    inclusive = False  # the next line of costs is a call's
    for line in lines:
        key, _, value = line.partition("=")
        if key == "ob":
            where = value.strip()
        elif key == "fn":
            callee = where
        elif key == "cob":
            callee = value.strip()
        elif key == "calls":
            inclusive = True
        elif line[:1] in "+-*0123456789" and " " in line:
            cost = int(line.split()[1])
            if LIBRARY.search(where) and (not inclusive or not (LIBRARY.search(callee) or NOT_COUNTED.search(callee))):
                total += cost
            if inclusive:
                inclusive, callee = False, where
    return total


def count(folder, ports, row):
    program, transport, times, arguments = all_rows()[row]
    if transport:
        arguments = [*arguments, "--waiting", "--port", str(ports[transport.lower()])]
    if transport == "TLS":
        arguments.append("--tls")
    with tempfile.NamedTemporaryFile("r", encoding="utf-8") as profile:
        processes.run("env", "LD_BIND_NOW=1", "valgrind", "--tool=callgrind", f"--callgrind-out-file={profile.name}",
                      "--toggle-collect=bench_measured", "--compress-strings=no", "--compress-pos=no", "-q",
                      os.path.join(folder, f"bench-{program}"), "--messages", str(times), *arguments, limit_s=300)
        return round(library_share(profile) / times)


def read_table(path):
    """The counts by row, and whether the growth with the tunnels is enforced."""
    counts, enforced = {}, False
    with contextlib.suppress(FileNotFoundError), open(path, encoding="ascii") as file:
        for line in file:
            name, _, value = line.rstrip("\n").rpartition("  ")
            if line.startswith("growth "):
                enforced = line.split()[1] == "enforced"
            elif name and not line.startswith("#"):
                counts[name.strip()] = int(value)
    return counts, enforced


def write_table(path, counts, enforced):
    with open(path, "w", encoding="ascii") as file:
        file.write("# Instructions that the library costs, OpenSSL's not counted: 'make cost-update' writes this table.\n"
                   "# Whether a message may cost more than 10 % more at 128 tunnels than at one: reported or enforced.\n"
                   f"growth {'enforced' if enforced else 'reported'}\n")
        for row, instructions in counts.items():
            file.write(f"{row:<28}  {instructions}\n")


def growth_faults(counts):
    faults = []
    for transport in ("plain", "TLS"):
        for size in SIZES:
            growth = counts[echo_row(transport, size, MANY)] / counts[echo_row(transport, size, 1)]
            print(f"echo {transport} {SIZES[size]}, 1 to {MANY} tunnels: {100 * (growth - 1):+.0f} %")
            if growth > ALLOWED_BY_TUNNELS:
                faults.append(f"echo {transport} {SIZES[size]} costs {100 * (growth - 1):.0f} % more at {MANY} tunnels")
    return faults


def main():
    action, folder, path = sys.argv[1:]
    known, enforced = read_table(path)
    counts, faults = collections.OrderedDict(), []
    with processes.load_server(folder) as (_, ports):
        for row in all_rows():
            counts[row] = count(folder, ports, row)
            before = known.get(row)
            print(f"{row}: {counts[row]:,}" + (f" (was {before:,})" if before else ""), flush=True)
            if action == "check" and before is None:
                faults.append(f"{row} is not in {path}")
            elif before and counts[row] > before * ALLOWED:
                faults.append(f"{row} has grown by {100 * (counts[row] / before - 1):.0f} %")
    growth = growth_faults(counts)
    if action == "write":
        write_table(path, counts, enforced)
        return
    faults += growth if enforced else []
    if faults:
        raise processes.Failure("; ".join(faults))


if __name__ == "__main__":
    try:
        main()
    except processes.Failure as failure:
        sys.exit(f"cost: {failure}")
