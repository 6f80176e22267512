#!/usr/bin/env python3
"""Measures the library beside bare sockets and its peers.

bench.py BUILD [--quick] [--rows REGEX]

BUILD is the build tree, build/release. A whole run writes docs/performance.md and its plots; with --quick or --rows what
it would write goes to BUILD/performance instead. A row's name is what the progress shows, "echo plain 16 B, 1 tunnel".
"""

import argparse
import os
import re
import sys

import fleet
import processes
import report
import rows

DESCRIPTORS = 4096
DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs")


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
    offered = rows.quick_rows() if asked.quick and not asked.rows else rows.all_rows()
    chosen = [row for row in offered if re.search(asked.rows, row.label)]
    if not chosen:
        raise processes.Failure(f"no row is named like '{asked.rows}'")
    plan = rows.QUICK if asked.quick else rows.FULL
    record = rows.run(os.path.join(asked.build, "bench"), plan, chosen)
    if not asked.rows:
        print(f"{plan.modules} module processes", flush=True)
        record["fleet"] = fleet.text(fleet.run(asked.build, plan.modules, plan.idle_seconds))
    whole = not asked.quick and not asked.rows
    print("written:", report.write(record, plan, DOCS if whole else os.path.join(asked.build, "performance")))


if __name__ == "__main__":
    try:
        main()
    except processes.Failure as failure:
        sys.exit(f"bench: {failure}")
