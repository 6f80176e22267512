#!/usr/bin/env python3
"""Measures the library beside bare sockets and its peers.

bench.py BUILD [--quick] [--rows REGEX]

BUILD is the build tree, build/release. A whole run writes docs/performance.md and its plots; with --quick or --rows what
it would write goes to BUILD/performance instead. A row's name is what the progress shows, "echo plain 16 B, 1 tunnel".
"""

import argparse
import json
import os
import re
import sys

import processes
import rows

DESCRIPTORS = 4096


def arguments():
    parser = argparse.ArgumentParser(prog="bench.py", description="Measures the library beside bare sockets and peers.")
    parser.add_argument("build")
    parser.add_argument("--quick", action="store_true", help="shorter and fewer runs: two minutes")
    parser.add_argument("--rows", default="", help="only rows whose name this matches")
    return parser.parse_args()


def main():
    asked = arguments()
    processes.end_on_signals()
    processes.raise_descriptor_limit(DESCRIPTORS)
    chosen = [row for row in rows.all_rows() if re.search(asked.rows, row.label)]
    if not chosen:
        raise processes.Failure(f"no row is named like '{asked.rows}'")
    record = rows.run(os.path.join(asked.build, "bench"), rows.QUICK if asked.quick else rows.FULL, chosen)
    target = os.path.join(asked.build, "performance")
    os.makedirs(target, exist_ok=True)
    with open(os.path.join(target, "record.json"), "w", encoding="ascii") as file:
        json.dump(record, file, indent=1)


if __name__ == "__main__":
    try:
        main()
    except processes.Failure as failure:
        sys.exit(f"bench: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
