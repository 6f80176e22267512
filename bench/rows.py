"""What the bench measures: its clients, its rows, and the runs of one row."""

import dataclasses
import os
import statistics
import time

import processes

# In the order of the tables' columns.
CLIENTS = {
    "raw": "raw",
    "floor": "floor",
    "library": "the library",
    "beast": "Boost.Beast",
    "websockets": "libwebsockets",
    "wslay": "wslay",
}
NEEDED = ["raw", "floor", "library"]  # the others are left out where they are not installed
VARIANTS = {
    "library": "log off, own masks",
    "library --log default": "default level, no callback",
    "library --masks library": "CLOUDMGR_ws_getMask",
}
DISTURBED = 0.02  # part of a run that other work took: such a run is repeated
MOST_TRIES = 4  # for each repetition


def size_text(size):
    for unit, name in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if size >= unit:
            return f"{size // unit} {name}"
    return f"{size} B"


@dataclasses.dataclass(frozen=True)
class Row:
    kind: str  # echo, flood, setup, heap
    tls: bool
    size: int = 16
    tunnels: int = 1
    variants: bool = False  # the library's own settings in place of the peers

    @property
    def transport(self):
        return "TLS" if self.tls else "plain"

    @property
    def label(self):
        if self.kind == "setup":
            return f"set-up {self.transport}"
        if self.kind == "heap":
            return f"heap {self.transport}"
        tunnels = f"{self.tunnels} tunnel{'s' if self.tunnels > 1 else ''}"
        settings = ", settings" if self.variants else ""
        return f"{self.kind} {self.transport} {size_text(self.size)}, {tunnels}{settings}"

    def clients(self, built):
        if not self.variants:
            return built
        return ["raw", "floor", *VARIANTS]


def quick_rows():
    """All but those in the middle: 32 tunnels lie between 1 and 128."""
    return [row for row in all_rows() if row.tunnels != 32]


def all_rows():
    rows = []
    for tls in (False, True):
        for size in (16, 1 << 10, 16 << 10):
            rows += [Row("echo", tls, size, tunnels) for tunnels in (1, 32, 128)]
        rows += [Row("flood", tls, size) for size in (16, 1 << 10, 16 << 10, 1 << 20, 16 << 20)]
        rows += [Row("echo", tls, 16, tunnels, variants=True) for tunnels in (1, 128)]
        rows.append(Row("setup", tls))
        rows.append(Row("heap", tls, tunnels=128))
    return rows


@dataclasses.dataclass
class Plan:
    repetitions: int
    seconds: float  # of one run
    budget: float  # of all rows, seconds
    modules: int  # module processes at once
    idle_seconds: float  # that one of them is looked at


FULL = Plan(repetitions=5, seconds=0.3, budget=660, modules=500, idle_seconds=20)
QUICK = Plan(repetitions=3, seconds=0.1, budget=70, modules=100, idle_seconds=5)


class Bench:
    """The load server, and clients run against it."""

    def __init__(self, folder, plan, server, ports):
        self.folder, self.plan, self.server, self.ports = folder, plan, server, ports
        self.repeated = 0

    def client(self, name, row):
        """One run: (messages a second or bytes, the part of it that other work took)."""
        stem, *settings = name.split()
        command = [os.path.join(self.folder, f"bench-{stem}"), "--port", str(self.ports["tls" if row.tls else "plain"]),
                   "--core", "1", "--job", row.kind, "--size", str(row.size), "--tunnels", str(row.tunnels), *settings]
        if row.tls:
            command.append("--tls")
        if row.kind != "heap":
            command += ["--seconds", str(self.plan.seconds)]
        server_queued, stolen, start = processes.queued_s(self.server.pid), processes.stolen_s(), time.monotonic()
        words = processes.run(*command, limit_s=60).split()
        if row.kind == "heap":
            return int(words[1]), 0.0
        taken = processes.queued_s(self.server.pid) - server_queued + processes.stolen_s() - stolen
        disturbed = max(float(words[5]) / float(words[3]), taken / (time.monotonic() - start))
        return int(words[1]) / float(words[3]), disturbed

    def measure(self, row, clients, until):
        """Runs the clients in turns, and once more those that were disturbed, for as long as there is time."""
        runs = {name: [] for name in clients}
        if row.kind == "heap":
            return {name: summary([self.client(name, row)[0]], 0) for name in clients}
        for attempt in range(self.plan.repetitions * MOST_TRIES):
            if attempt >= self.plan.repetitions and time.monotonic() > until:
                break
            for name in clients:
                clean = sum(disturbed <= DISTURBED for _, disturbed in runs[name])
                if clean < self.plan.repetitions:
                    runs[name].append(self.client(name, row))
        results = {}
        for name, tries in runs.items():
            self.repeated += len(tries) - self.plan.repetitions
            best = sorted(tries, key=lambda run: run[1])[:self.plan.repetitions]
            results[name] = summary([value for value, _ in best], sum(d > DISTURBED for _, d in best))
        return results


def summary(values, disturbed):
    median = statistics.median(values)
    return {"median": median, "low": min(values), "high": max(values), "disturbed": disturbed}


def built_clients(folder):
    for name in NEEDED:
        processes.program(os.path.join(folder, f"bench-{name}"))
    return [name for name in CLIENTS if os.access(os.path.join(folder, f"bench-{name}"), os.X_OK)]


def progress(row, results):
    if row.kind == "heap":
        return ", ".join(f"{name} {result['median']}" for name, result in results.items()) + " bytes"
    raw = results["raw"]["median"]
    others = ", ".join(f"{name} {result['median'] / raw:.2f}" for name, result in results.items() if name != "raw")
    return f"raw {raw:,.0f}/s, {others}"


def run(folder, plan, rows):
    """Measures `rows`; returns what the report is written from."""
    built = built_clients(folder)
    if (os.cpu_count() or 1) < 2:
        raise processes.Failure("one core is too few: server and client need one each")
    record = {"clients": built, "rows": {}, "runs_repeated": 0}
    end = time.monotonic() + plan.budget
    with processes.load_server(folder, core=0) as (server, ports):
        bench = Bench(folder, plan, server, ports)
        for number, row in enumerate(rows, 1):
            now = time.monotonic()
            results = bench.measure(row, row.clients(built), now + (end - now) / (len(rows) - number + 1))
            record["rows"][row.label] = results
            print(f"[{number}/{len(rows)}] {row.label}: {progress(row, results)}", flush=True)
    record["runs_repeated"] = bench.repeated
    return record
