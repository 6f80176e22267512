"""Writes what the bench measured: tables as Markdown, plots as SVG."""

import os
import platform
import subprocess

import processes
import rows

GOAL = 0.95  # of the floor


def cell(result, raw):
    """A median as a ratio to raw sockets, with the spread of the repetitions."""
    low, median, high = (result[key] / raw for key in ("low", "median", "high"))
    digits = 2 if median >= 0.1 else 3
    return f"{median:.{digits}f} ({low:.{digits}f}-{high:.{digits}f})"


def table(head, lines):
    return "\n".join(["| " + " | ".join(line) + " |" for line in [head, ["---"] * len(head), *lines]])


def measured(record, kind, tls, variants=False):
    chosen = (row for row in rows.all_rows() if (row.kind, row.tls, row.variants) == (kind, tls, variants))
    return [(row, record["rows"][row.label]) for row in chosen if row.label in record["rows"]]


def each_kind(record, kinds, variants=False):
    return [pair for kind in kinds for tls in (False, True) for pair in measured(record, kind, tls, variants)]


def ratio_table(record):
    clients = [name for name in record["clients"] if name != "raw"]
    lines = []
    for row, results in each_kind(record, ("echo", "flood", "setup")):
        raw = results["raw"]["median"]
        lines.append([row.label, f"{raw:,.0f}", *(cell(results[name], raw) for name in clients),
                      f"{results['library']['median'] / results['floor']['median']:.2f}"])
    head = ["row", "raw, a second", *(rows.CLIENTS[name] for name in clients), "library to floor"]
    return table(head, lines)


def rate_table(record):
    lines = [[row.label, *(f"{results[name]['median']:,.0f}" for name in record["clients"])]
             for row, results in each_kind(record, ("echo", "flood", "setup"))]
    return table(["a second", *(rows.CLIENTS[name] for name in record["clients"])], lines)


def variant_table(record):
    lines = []
    for row, results in each_kind(record, ("echo",), variants=True):
        raw = results["raw"]["median"]
        lines.append([row.label, *(cell(results[name], raw) for name in ["floor", *rows.VARIANTS])])
    return table(["row, as a ratio to raw sockets", "floor", *rows.VARIANTS.values()], lines)


def heap_table(record):
    lines = [[row.label, *(f"{results[name]['median']:,}" for name in record["clients"])]
             for row, results in each_kind(record, ("heap",))]
    return table(["bytes of heap a connection", *(rows.CLIENTS[name] for name in record["clients"])], lines)


def summary(record):
    """What the rows come to, in sentences that follow from them."""
    ratios = [(row.label, results["library"]["median"] / results["floor"]["median"])
              for row, results in each_kind(record, ("echo", "flood", "setup"))]
    behind = sorted((ratio, label) for label, ratio in ratios if ratio < GOAL)
    text = [f"In {len(ratios) - len(behind)} of {len(ratios)} rows the library is within 5 % of the floor or above it."]
    if behind:
        named = ", ".join(f"{label} ({ratio:.2f})" for ratio, label in behind)
        text.append(f"It is behind the floor in: {named}.")
    peers = [name for name in record["clients"] if name not in rows.NEEDED]
    for peer in peers:
        losses = [row.label for row, results in each_kind(record, ("echo", "flood", "setup"))
                  if results["library"]["median"] < results[peer]["median"]]
        named = f": {', '.join(losses)}" if losses else ""
        text.append(f"{rows.CLIENTS[peer]} is faster in {len(losses)} of {len(ratios)} rows{named}.")
    return "\n".join(text)


def meaning(record):
    """What a message costs a device, as far as this machine can say it."""
    by_label = record["rows"]
    text = []
    for transport in ("plain", "TLS"):
        results = by_label.get(f"echo {transport} 1 KiB, 32 tunnels")
        if results:
            rate = results["library"]["median"]
            text.append(f"- {transport}, 1 KiB to and fro over 32 tunnels: {rate:,.0f} messages a second on one core of "
                        f"this machine, {1e6 / rate:.1f} microseconds each. A core that is ten times slower carries "
                        f"{rate / 10:,.0f}; a device that exchanges 100 messages a second spends "
                        f"{100 * 10 / rate * 100:.2f} % of such a core on them.")
    for transport in ("plain", "TLS"):
        results = by_label.get(f"set-up {transport}")
        if results:
            text.append(f"- A set-up, {transport}, takes {1e3 / results['library']['median']:.2f} ms here, both ends "
                        "included.")
    return "\n".join(text)


GNUPLOT_HEAD = """set terminal svg size 720,420 font 'sans-serif,13' background '#ffffff'
set output '{output}'
set title '{title}'
set ylabel '{ylabel}'
set grid ytics linecolor '#dddddd'
set border 3
set tics nomirror
set key outside right top
"""
COLOURS = {"raw": "#555555", "floor": "#999999", "library": "#c0392b", "beast": "#2471a3", "websockets": "#d68910",
           "wslay": "#1e8449"}


def gnuplot(folder, name, title, ylabel, body):
    script = GNUPLOT_HEAD.format(output=os.path.join(folder, name), title=title, ylabel=ylabel) + body
    try:
        subprocess.run(["gnuplot"], input=script, text=True, check=True, capture_output=True)
    except FileNotFoundError:
        raise processes.Failure("gnuplot is missing: install the package gnuplot-nox") from None
    except subprocess.CalledProcessError as error:
        raise processes.Failure(f"gnuplot: {error.stderr.strip()}") from None


def curves(record, points, axis):
    """A line a client through (x, label of the row)."""
    points = [(x, label) for x, label in points if label in record["rows"]]
    data, plots = "", []
    for name in record["clients"]:
        data += f"${name} << EOD\n" + "".join(
            f"{x} {1e6 / record['rows'][label][name]['median']:.4f}\n" for x, label in points) + "EOD\n"
        plots.append(f"${name} with linespoints linewidth 2 pointtype 7 linecolor '{COLOURS[name]}' "
                     f"title '{rows.CLIENTS[name]}'")
    ticks = ", ".join(f"'{text}' {x}" for x, text in axis)
    return f"{data}set logscale xy 2\nset format y '%g'\nset xtics ({ticks})\nplot {', '.join(plots)}\n"


def bars(record, labels):
    """A group of bars a row."""
    data = "$bars << EOD\n"
    for label, text in labels:
        values = " ".join(str(record["rows"][label][name]["median"]) for name in record["clients"])
        data += f'"{text}" {values}\n'
    plots = ", ".join(f"$bars using {number + 2}:xtic(1) title '{rows.CLIENTS[name]}' linecolor '{COLOURS[name]}'"
                      for number, name in enumerate(record["clients"]))
    return f"{data}EOD\nset style data histograms\nset style fill solid\nset boxwidth 0.9\nset yrange [0:*]\nplot {plots}\n"


def plots(record, folder):
    """Draws what the record has the rows for; returns (file, title)."""
    os.makedirs(folder, exist_ok=True)
    drawn = []

    def draw(name, title, ylabel, body):
        gnuplot(folder, name, title, ylabel, body)
        drawn.append((name, title))

    sizes = [(16, "16 B"), (1 << 10, "1 KiB"), (16 << 10, "16 KiB")]
    tunnels = [(1, "1 tunnel"), (32, "32 tunnels"), (128, "128 tunnels")]
    for transport in ("plain", "TLS"):
        by_tunnels = [(x, f"echo {transport} 16 B, {text}") for x, text in tunnels]
        if all(label in record["rows"] for _, label in by_tunnels):
            draw(f"tunnels-{transport.lower()}.svg", f"Echo of 16 B, {transport}: cost against tunnels",
                 "microseconds a message", curves(record, by_tunnels, tunnels))
        by_size = [(x, f"echo {transport} {text}, 1 tunnel") for x, text in sizes]
        if all(label in record["rows"] for _, label in by_size):
            draw(f"size-{transport.lower()}.svg", f"Echo over one tunnel, {transport}: cost against size",
                 "microseconds a message", curves(record, by_size, sizes))
    for kind, name, title, ylabel in (("set-up", "set-ups.svg", "Set-ups", "a second"),
                                      ("heap", "heap.svg", "Memory a connection", "bytes of heap")):
        labels = [(f"{kind} {transport}", transport) for transport in ("plain", "TLS")]
        if all(label in record["rows"] for label, _ in labels):
            draw(name, title, ylabel, bars(record, labels))
    return drawn


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for line in file:
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return platform.machine()


HOW = """A load server and a client, each on a core of its own, talk over the loopback interface. Both spin while a run is on, so
no row measures how fast the kernel wakes a process up. The server is the bench's own code and the same for all; it sends
a flood as one stream without gaps. Each tunnel is set up in full: connection, TLS, upgrade, registration. In an echo row
each tunnel has one message under way at a time.

- **raw** is bare sockets with as few system calls as it can be done with: many events a call, large reads, several
  messages out of one read.
- **floor** is a client without any library that makes the system calls that this library is described by: one event a
  call, reads of exactly the head, the length and the payload, one message a turn, one send a message, and a turn for
  each message that a TLS session holds. What is far behind bare sockets here, a flood of small messages above all, is so
  by that description: a read that takes many messages at once is not part of it. Its set-up makes the described keys,
  too: the C library's generator, seeded anew for each of 40 numbers, is seven tenths of a set-up's instructions here.
- **the library** is used by its public header alone, with the log off and mask keys of the client's own, taken from the
  kernel in batches.
- The peers are as Debian packages them, each used as its own examples do.

A figure is the median of {repetitions} repetitions; the lowest and the highest stand behind it. The clients take turns in
each repetition. A run of which other work on the machine took more than {disturbed:.0%} is repeated: {repeated} were. {left}
The heap is what malloc holds for one connection more, OpenSSL's part included, without what the kernel holds."""


def performance(record, plan, drawn):
    left = sum(result["disturbed"] for results in record["rows"].values() for result in results.values())
    told = f"{left} of those that count stayed disturbed for want of time." if left else "None of those that count was."
    parts = [
        "# Performance",
        "`make bench` writes this page. Figures are messages (or set-ups) a second of one client process; a ratio is to bare\n"
        "sockets in the same run. Higher is better.",
        f"Measured on {processor()}, Linux {platform.release()}.",
        "## What it comes to", summary(record),
        "## What it means for a device", meaning(record),
        "## Beside bare sockets and the peers", ratio_table(record),
        *(f"![{title}](performance/{name})" for name, title in drawn),
        "## The library's settings", variant_table(record),
        "## Memory", heap_table(record),
        "## Messages and set-ups a second", rate_table(record),
        "## Many processes" if record.get("fleet") else "", record.get("fleet", ""),
        "## How it was measured",
        HOW.format(repetitions=plan.repetitions, disturbed=rows.DISTURBED, repeated=record["runs_repeated"], left=told),
    ]
    return "\n\n".join(part for part in parts if part) + "\n"


def write(record, plan, folder):
    """Writes FOLDER/performance.md and FOLDER/performance/*.svg."""
    os.makedirs(folder, exist_ok=True)
    drawn = plots(record, os.path.join(folder, "performance"))
    path = os.path.join(folder, "performance.md")
    with open(path, "w", encoding="utf-8") as file:
        file.write(performance(record, plan, drawn))
    return path
