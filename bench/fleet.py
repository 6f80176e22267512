"""Many module processes: what one costs that has nothing to do, and how hundreds come up, once and after the platform was
away."""

import contextlib
import fcntl
import os
import re
import socket
import statistics
import subprocess
import tempfile
import time

import processes

LOCK = "/tmp/cloudmgr_subconn.lock"  # the library looks for its daemon in one place only
LOCK_S = 120
LIFE_S = 600  # that no process outlives
UP_S = 120  # for all tunnels to come up
AWAY_S = 5  # the platform
REMIND_S = 5  # after which the daemon repeats its tunnel data to a module that still waits for them

# A line of a module's timeline: seconds since its start, "module", the state of its tunnel, what happened.
LINE = re.compile(r"^ *([0-9.]+) module +(\S+)", re.M)


def set_ups(text):
    """The seconds that each set-up took which ended in an open tunnel, in a module's timeline."""
    taken, start, was = [], None, ""
    for seconds, state in LINE.findall(text):
        if state == "set-up" and was != "set-up":
            start = float(seconds)
        elif state == "open" and was == "set-up":
            taken.append(float(seconds) - start)
        was = state
    return taken


@contextlib.contextmanager
def daemon_socket():
    """The daemon's socket is one for the machine: others of this project's programs wait for it, too."""
    with open(LOCK, "w", encoding="ascii") as lock:
        end = time.monotonic() + LOCK_S
        while True:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                if time.monotonic() > end:
                    raise processes.Failure(f"another program has held {LOCK} for {LOCK_S} s") from None
                time.sleep(0.2)
        yield


def bound(*command, **options):
    """A process that ends with this one, whatever ends it."""
    return processes.running("setpriv", "--pdeathsig", "KILL", *command, **options)


class Fleet:
    """Modules, each with its timeline in a file."""

    def __init__(self, program, folder, stack):
        self.program, self.folder, self.stack = program, folder, stack
        self.modules = []  # (process, path of the timeline)

    def start(self, count):
        for _ in range(count):
            name = f"m{len(self.modules)}"
            path = os.path.join(self.folder, name)
            with open(path, "w", encoding="ascii") as timeline:
                process = self.stack.enter_context(bound(
                    self.program, "--model", name, "--seconds", str(LIFE_S), stdout=timeline, stderr=subprocess.DEVNULL))
            self.modules.append((process, path))

    def times(self, module):
        """The seconds that each set-up of a module took."""
        process, path = module
        if process.poll() is not None:
            raise processes.Failure(f"a module ended with status {process.returncode}")
        with open(path, encoding="ascii", errors="replace") as timeline:
            return set_ups(timeline.read())

    def wait_for_tunnels(self, number, simulator):
        """Waits until each module has had `number` tunnels. Returns how often the daemon had to repeat tunnel data: a
        module whose process was kept waiting reads them together with the answer to its registration, and loses them."""
        missing = list(self.modules)
        end = time.monotonic() + UP_S
        remind_at, reminded = time.monotonic() + REMIND_S, 0
        while missing := [module for module in missing if len(self.times(module)) < number]:
            if time.monotonic() > end:
                with open(missing[0][1], encoding="ascii", errors="replace") as timeline:
                    last = timeline.read().strip().splitlines()[-1:]
                raise processes.Failure(f"{len(missing)} of {len(self.modules)} tunnels are not up after {UP_S} s; the "
                                        f"first of these modules last said: {' '.join(last)}")
            if time.monotonic() > remind_at:
                waiting = [os.path.basename(path) for _, path in missing if self.waits(path)]
                simulator.stdin.write("".join(f"tunnel {name}\n" for name in waiting))
                simulator.stdin.flush()
                remind_at, reminded = time.monotonic() + REMIND_S, reminded + len(waiting)
            time.sleep(0.05)
        return reminded

    @staticmethod
    def waits(path):
        """Whether a module has its link to the daemon and has heard nothing on it."""
        with open(path, encoding="ascii", errors="replace") as timeline:
            return {state for _, state in LINE.findall(timeline.read())} == {"waiting"}


def pss_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return int(re.search(r"^Pss: +(\d+) kB", file.read(), re.M)[1])


def activity(pid):
    """How often a process has gone to sleep, and how long it has run."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        sleeps = int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", file.read(), re.M)[1])
    with open(f"/proc/{pid}/schedstat", encoding="ascii") as file:
        return sleeps, int(file.read().split()[0]) / 1e9


def idle_cost(pid, seconds):
    sleeps, ran = activity(pid)
    start = time.monotonic()
    time.sleep(seconds)
    later_sleeps, later_ran = activity(pid)
    passed = time.monotonic() - start
    return {"pss_kib": pss_kib(pid), "wakeups": (later_sleeps - sleeps) / passed,
            "cpu_s_an_hour": (later_ran - ran) / passed * 3600}


def free_port():
    """A port that nothing listens on now; the platform comes back on the same one."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return str(probe.getsockname()[1])


def run(build, count, idle_s):
    """Measures; returns what `text` shows."""
    sim = processes.program(os.path.join(build, "apps/sim/cloudtunnel-sim"))
    module = processes.program(os.path.join(build, "apps/module/cloudtunnel-module"))
    port = free_port()

    def platform():
        return bound(sim, "--quiet", "--port", port, "--seconds", str(LIFE_S), stdin=subprocess.PIPE,
                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    with daemon_socket(), tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as stack:
        fleet = Fleet(module, folder, stack)
        with platform() as first:
            processes.wait_until(lambda: os.path.exists("/tmp/cloudmgr_subconn.sock"), 10, "the simulator")
            fleet.start(1)
            fleet.wait_for_tunnels(1, first)
            idle = idle_cost(fleet.modules[0][0].pid, idle_s)
            start = time.monotonic()
            fleet.start(count - 1)
            reminded = fleet.wait_for_tunnels(1, first)
            up_s = time.monotonic() - start
            taken = sorted(fleet.times(module)[0] for module in fleet.modules)
            memory = sum(pss_kib(process.pid) for process, _ in fleet.modules)
            simulator = pss_kib(first.pid)
        time.sleep(AWAY_S)
        start = time.monotonic()
        with platform() as second:
            fleet.wait_for_tunnels(2, second)
            back_s = time.monotonic() - start
    return {"count": count, "idle": idle, "up_s": up_s, "median_ms": 1e3 * statistics.median(taken),
            "p99_ms": 1e3 * taken[min(len(taken) - 1, len(taken) * 99 // 100)], "memory_mib": memory / 1024,
            "simulator_mib": simulator / 1024, "back_s": back_s, "reminded": reminded}


def text(found):
    idle, count = found["idle"], found["count"]
    return f"""| what | measured |
| --- | --- |
| an idle module process with an open tunnel: memory (proportional set size, alone on the machine) | \
{idle['pss_kib']:,} KiB |
| its wake-ups a second | {idle['wakeups']:.1f} |
| its processor time | {idle['cpu_s_an_hour']:.1f} s an hour |
| {count} module processes against one simulator: until all are up, the start of the processes included | \
{found['up_s']:.1f} s |
| a set-up among them, median and 99th percentile | {found['median_ms']:.0f} ms, {found['p99_ms']:.0f} ms |
| modules to which the daemon had to repeat its tunnel data, after {REMIND_S} s | {found['reminded']} |
| memory of all of them together, and of each | {found['memory_mib']:.0f} MiB, {found['memory_mib'] * 1024 / count:.0f} \
KiB |
| memory of the simulator | {found['simulator_mib']:.0f} MiB |
| platform and daemon {AWAY_S} s away: until all are up again, from their return on | {found['back_s']:.1f} s |

After a failure a module waits before it starts again, twice as long each time and up to a quarter more or less, so that a
fleet does not come back at once."""
