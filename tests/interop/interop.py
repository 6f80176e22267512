#!/usr/bin/env python3
"""Tries the module program against servers of other hands, on loopback, and the simulator's key log against tshark.

interop.py BUILD [--only REGEX]

BUILD is the build tree, build/release. One line a case is printed, group by group. The cases of a server that is not on
this machine are left out by name; where CI is set in the environment they fail. Exit status: 0 when no case failed,
1 when one did, 2 when none was tried.
"""

import argparse
import contextlib
import fcntl
import os
import queue
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True  # no folder is left in the sources

from cases import GROUPS
from fixture import Fixture
from processes import Failure, Process
from servers import missing

LOCK = "/tmp/cloudmgr_subconn.lock"  # the library looks for its daemon in one place only, so there is one run at a time
LOCK_TIME = 240
AT_ONCE = 5  # groups


def fail(reason):
    print(f"interop.py: {reason}", file=sys.stderr)
    sys.exit(2)


def arguments():
    parser = argparse.ArgumentParser(prog="interop.py", description="Tries the module against servers of other hands.")
    parser.add_argument("build")
    parser.add_argument("--only", default="", help="only the groups whose name this matches")
    return parser.parse_args()


def find_programs(build):
    programs = {
        "sim": "apps/sim/cloudtunnel-sim",
        "module": "apps/module/cloudtunnel-module",
        "dialect": "tests/interop/interop_dialect",
    }
    found = {name: os.path.join(build, path) for name, path in programs.items()}
    for path in found.values():
        if not os.access(path, os.X_OK):
            fail(f"{path} is not built; 'make interop' builds it")
    return found


def take_lock():
    try:
        lock = open(LOCK, "w", encoding="ascii")
    except OSError as error:
        fail(f"{LOCK} cannot be opened: {error.strerror}; run it as the user whose file that is")

    def give_up(number, frame):
        fail(f"another demo or test has held {LOCK} for {LOCK_TIME} s; try again later")

    signal.signal(signal.SIGALRM, give_up)
    signal.alarm(LOCK_TIME)
    fcntl.flock(lock, fcntl.LOCK_EX)
    signal.alarm(0)
    return lock


def make_certificate(work):
    pem = os.path.join(work, "platform.pem")
    key = os.path.join(work, "platform.key")
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=platform.example",
         "-addext", "subjectAltName=DNS:platform.example,IP:127.0.0.1", "-keyout", key, "-out", pem],
        check=True, capture_output=True)
    with open(pem, "a", encoding="ascii") as out, open(key, encoding="ascii") as private:
        out.write(private.read())
    return pem


class Table:
    """What is printed: the lines of one group stand together."""

    def __init__(self):
        self.counts = {"ok": 0, "FAILED": 0, "left out": 0}
        self.lock = threading.Lock()

    def show(self, name, rows):
        with self.lock:
            if Process.over:
                return  # the run was ended, and so were the servers of these cases
            for result, fact, seconds, reason in rows:
                took = "" if seconds is None else f"{seconds:.2f} s"
                print(f"{name:24} | {result:8} | {took:>7} | {fact}")
                for line in (reason or "").splitlines():
                    print(f"{'':24} | {'':8} | {'':7} |   {line}")
                self.counts[result] += 1
            sys.stdout.flush()

    def total(self):
        return f"{self.counts['ok']} passed, {self.counts['FAILED']} failed, {self.counts['left out']} skipped"


def run_group(group, model, programs, work, certificate):
    """The rows of one group. Behind a case that failed, the rest of its group is not tried."""
    absent = missing(group.needs)
    if absent:
        result = "FAILED" if os.environ.get("CI") else "left out"
        return [(result, "all its cases", None, f"not on this machine: {', '.join(absent)}")]
    fixture = Fixture(model, programs, work, certificate)
    try:
        group.run(fixture)
    except Exception as failure:  # whatever it is: the other groups go on
        reason = str(failure) if isinstance(failure, Failure) else repr(failure)
        fixture.rows.append(("FAILED", fixture.under_way, None, f"{reason}\n{fixture.last_words()}"))
    finally:
        fixture.clean_up()
    return fixture.rows


def run_all(chosen, programs, work, table):
    certificate = make_certificate(work)
    waiting = queue.SimpleQueue()
    for number, group in enumerate(chosen, 1):
        waiting.put((group, f"interop-{number}"))

    def work_off():
        with contextlib.suppress(queue.Empty):
            while True:
                group, model = waiting.get_nowait()
                table.show(group.name, run_group(group, model, programs, work, certificate))

    threads = [threading.Thread(target=work_off, daemon=True) for _ in range(AT_ONCE)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def main():
    asked = arguments()
    chosen = [group for group in GROUPS if re.search(asked.only, group.name)]
    if not chosen:
        fail(f"no group is named like '{asked.only}'; they are: {', '.join(group.name for group in GROUPS)}")
    programs = find_programs(asked.build)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, frame: sys.exit(128 + number))
    table = Table()
    with take_lock(), tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as work:
        begin = time.monotonic()
        try:
            run_all(chosen, programs, work, table)
        finally:
            Process.stop_all()
    print(f"interop: {len(chosen)} groups in {time.monotonic() - begin:.0f} s")
    print(table.total())
    return table.counts["FAILED"] > 0


if __name__ == "__main__":
    sys.exit(main())
