"""Processes that the bench starts: each ends with it, also when it is interrupted."""

import contextlib
import os
import resource
import signal
import subprocess
import time


class Failure(Exception):
    """What ends the bench: its text is the one line that is written."""


ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


def end_on_signals():
    """Has the signals that end a program leave through the clean-up; once is enough, the next ones do not disturb it."""

    def leave(number, _frame):
        for ending in ENDING:
            signal.signal(ending, signal.SIG_IGN)
        raise SystemExit(128 + number)

    for ending in ENDING:
        signal.signal(ending, leave)


def raise_descriptor_limit(wanted):
    """Sees to it that `wanted` descriptors can be open; the processes that are started inherit the limit."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < wanted:
        raise Failure(f"too few descriptors: {wanted} are needed and {hard} allowed; raise the limit with 'ulimit -Hn'")
    if soft < wanted:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, hard))


def program(path):
    if not os.access(path, os.X_OK):
        raise Failure(f"{path} is not built; 'make bench' builds it")
    return path


@contextlib.contextmanager
def running(*command, **options):
    """A process that is killed at the end of the block."""
    # A signal that arrives while the process starts waits until there is something to clean up.
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    try:
        process = subprocess.Popen(command, text=True, preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_SETMASK, mask),
                                   **{"stdin": subprocess.DEVNULL, **options})
    except BaseException:
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)
        raise
    try:
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)
        yield process
    finally:
        process.kill()
        process.wait()
        for stream in filter(None, (process.stdin, process.stdout, process.stderr)):
            with contextlib.suppress(BrokenPipeError):
                stream.close()


def run(*command, limit_s):
    """Runs a program to its end and returns what it wrote."""
    with running(*command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        try:
            out, errors = process.communicate(timeout=limit_s)
        except subprocess.TimeoutExpired:
            raise Failure(f"{' '.join(command)}: no end within {limit_s} s") from None
    if process.returncode != 0:
        reason = errors.strip().splitlines()
        raise Failure(f"{' '.join(command)}: {reason[-1] if reason else f'status {process.returncode}'}")
    return out


@contextlib.contextmanager
def load_server(folder, core=None):
    """The load server of the bench: (process, {"plain": port, "tls": port})."""
    pinned = [] if core is None else ["--core", str(core)]
    with running(program(os.path.join(folder, "bench-server")), *pinned, stdout=subprocess.PIPE,
                 stderr=subprocess.PIPE) as process:
        words = process.stdout.readline().split()
        if not words:
            raise Failure(process.stderr.read().strip() or "the load server does not start")
        yield process, {"plain": int(words[1]), "tls": int(words[3])}


def queued_s(pid):
    """How long a process has been ready to run while other work had its core."""
    with open(f"/proc/{pid}/schedstat", encoding="ascii") as file:
        return int(file.read().split()[1]) / 1e9


def stolen_s():
    """How long the machine's cores were not the machine's."""
    with open("/proc/stat", encoding="ascii") as file:
        return int(file.readline().split()[8]) / os.sysconf("SC_CLK_TCK")


def wait_until(condition, limit_s, what):
    end = time.monotonic() + limit_s
    while not condition():
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {limit_s} s")
        time.sleep(0.01)
