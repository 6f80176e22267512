#!/usr/bin/env python3
"""What the library costs on the device, measured on the finished build.

footprint.py check|write SMALL FAST TABLE

SMALL and FAST are the build trees at -Os and at -O2, the first with its tests run by CTest. Both actions print the
figures. `write` writes them into TABLE, docs/footprint.md; `check` fails where one has grown by more than 5 % of what
TABLE says, or is not in it.
"""

import glob
import os
import re
import subprocess
import sys

ALLOWED_GROWTH = 1.05
LARGEST_FILE = 68 * 1024  # at -Os
LARGEST_MODULE_FILE = 32 * 1024  # likewise
LARGEST_FRAME = 8 * 1024
DEEPEST_PATH = 96 * 1024

# Calls that go through a pointer: who makes them, and where in the library they arrive. A callback of the caller's is
# the caller's stack; the print callback, which two hundred places call, is one of these.
CONNECTED = ["cloudmgr_v3wscnct_sendHandshake"]
FAILURE = ["cloudmgr_v3wscnct_connectFail"]
DATA = ["cloudmgr_v3wscnct_handshakeRcv", "cloudmgr_v3wscnct_requestRcv"]
INDIRECT = {
    "CLOUDTUNNEL_EPOLL_HandleMsg": [
        "cloudtunnel_socket_dataProc", "CLOUDMGR_socket_connectProc", "cloudtunnel_cl_procServerMsg"],
    "cloudtunnel_timer_proc": [
        "cloudtunnel_socket_connectTimeout", "cloudmgr_v3wscnct_timeout", "cloudtunnel_cl_reConnTimerProc"],
    "CLOUDMGR_socket_connect": FAILURE,
    "CLOUDMGR_socket_connectProc": CONNECTED + FAILURE,
    "CLOUDMGR_socket_normal_connect": CONNECTED,
    "tls_handshake": CONNECTED,
    "cloudtunnel_socket_connectTimeout": FAILURE,
    "cloudtunnel_socket_dataProc": DATA + FAILURE,
    "dispatch_message": DATA,
    "dispatch_http": DATA,
    "dispatch_ws": DATA,
    "cloudmgr_dl_FreeAll": ["line_free", "node_free"],
    "cloudmgr_v3wscnct_connectFail": [],
    "cloudmgr_v3wscnct_timeout": [],
    "cloudmgr_v3wscnct_requestRcv": [],
    "cloudtunnel_cl_procServerMsg": [],
    "CLOUDMGR_v3wscnct_start": [],
    "CLOUDMGR_ws_CloseRcv": [],
}


class Failure(Exception):
    pass


def run(*command):
    try:
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout
    except (OSError, subprocess.CalledProcessError) as error:
        raise Failure(f"{command[0]}: {error}; 'make device' builds and installs what is needed") from error


def library(tree):
    path = os.path.join(tree, "libcloudtunnel.so")
    if not os.path.exists(path):
        raise Failure(f"{path} is not built; 'make device' builds it")
    return path


def sizes(tree):
    stripped = os.path.join(tree, "libcloudtunnel.stripped.so")
    run("llvm-strip", "-o", stripped, library(tree))
    if not re.search(r" \.(debug|eh)_frame ", run("llvm-readelf", "-SW", library(tree))):
        raise Failure(f"{library(tree)} says nowhere how a debugger walks its stack")
    text, data, bss = map(int, run("llvm-size", stripped).splitlines()[1].split()[:3])
    # The rest of the last page that becomes read-only. The linker calls it a section; it holds nothing.
    padding = re.search(r"^\.relro_padding +(\d+)", run("llvm-size", "-A", stripped), re.M)
    return {"text": text, "data": data, "bss": bss - int(padding[1] if padding else 0), "file": os.path.getsize(stripped)}


def module_file(tree):
    """The size of the second library's stripped file."""
    stripped = os.path.join(tree, "libcloudtunnel-module.stripped.so")
    run("llvm-strip", "-o", stripped, os.path.join(tree, "libcloudtunnel-module.so"))
    return os.path.getsize(stripped)


def needed(tree):
    return re.findall(r"NEEDED.*\[(.*)\]", run("llvm-readelf", "-d", library(tree)))


def frames(tree):
    """The bytes of stack of each function, by its name in the object file."""
    result = {}
    for path in glob.glob(os.path.join(tree, "CMakeFiles/cloudtunnel_*objects.dir/**/*.su"), recursive=True):
        with open(path, encoding="utf-8") as file:
            for line in file:
                place, size, kind = line.rstrip("\n").split("\t")
                if kind != "static":
                    raise Failure(f"{place}: the frame is not of a fixed size")
                name = place.split(":")[-1]
                result[name] = max(result.get(name, 0), int(size))
    if not result:
        raise Failure(f"no .su file in {tree}; it must be configured with CLOUDTUNNEL_STACK_USAGE")
    return result


def calls(tree):
    """The functions that each function calls or jumps to, by name; and those that call through a pointer other than
    to print."""
    callees, pointers, here, before = {}, {}, None, ""
    for line in run("llvm-objdump", "-d", "--no-show-raw-insn", library(tree)).splitlines():
        begin = re.match(r"^[0-9a-f]+ <(.*)>:$", line)
        if begin:
            here = begin[1]
            callees.setdefault(here, set())
            pointers.setdefault(here, 0)
            continue
        call = re.search(r"\t(bl|b|b\.\w+|cbn?z|tbn?z)\t.*<([^+>]*)>$", line)
        if call and call[2] != here:
            callees[here].add(call[2])
        if "log_print" in (here or ""):  # the one that prints
            continue
        # A jump to a place worked out by an addition is a switch; x16 and x17 are the linker's.
        if re.search(r"\tblr\t", line) or (re.search(r"\tbr\t(?!x1[67]$)", line) and "\tadd\t" not in before):
            pointers[here] += 1
        before = line
    return callees, {name for name, count in pointers.items() if count > 0}


def plain(name):
    """_Z3fooi, _Z3fooIiEvv and foo are all foo."""
    demangled = run("llvm-cxxfilt", name).strip()
    return re.sub(r"\(anonymous namespace\)::|^void (?=.*<)|<.*", "", demangled).split("(")[0]


def deepest(tree):
    size = frames(tree)
    callees, unsure = calls(tree)
    names = {name: plain(name) for name in callees}
    by_plain = {}
    for name, short in names.items():
        by_plain.setdefault(short, []).append(name)
    for name in unsure:
        if names[name] not in INDIRECT:
            raise Failure(f"{name} calls through a pointer; name the functions that it can reach in INDIRECT of scripts/device/footprint.py")
    for caller, arrive in INDIRECT.items():
        for name in by_plain.get(caller, []):
            for callee in arrive:
                if callee not in by_plain:
                    raise Failure(f"{callee} is not in the library; correct INDIRECT in scripts/device/footprint.py")
                callees[name].update(by_plain[callee])
    best, on_path = {}, set()

    def walk(name):
        if name in best:
            return best[name]
        if name in on_path:
            raise Failure(f"{name} calls itself: the stack has no bound")
        on_path.add(name)
        below = max((walk(callee) for callee in callees.get(name, ()) if callee in size), default=(0, ()))
        on_path.discard(name)
        best[name] = (size.get(name, 0) + below[0], (name,) + below[1])
        return best[name]

    total, path = max(walk(name) for name in size)
    return total, [(plain(name), size[name]) for name in path], size


def test_log(tree):
    """What the tests last printed."""
    path = os.path.join(tree, "Testing/Temporary/LastTest.log")
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def tests(tree):
    """How many programs and scripts CTest ran, and how many tests were in them; and how many of each passed."""
    log = test_log(tree)
    ran = sum(map(int, re.findall(r"^\[==========\] (\d+) tests? from .* ran", log, re.M)))
    passed = sum(map(int, re.findall(r"^\[  PASSED  \] (\d+) tests?", log, re.M)))
    return len(re.findall(r"^Command: ", log, re.M)), len(re.findall(r"^Test Passed\.$", log, re.M)), ran, passed


def measure(small, fast):
    """The figures, in the order of the page: (what, number, unit)."""
    figures = []
    for tree, flag in ((small, "-Os"), (fast, "-O2")):
        for what, size in sizes(tree).items():
            figures.append((f"{what} of the stripped library at {flag}", size, "bytes"))
    figures.append(("file of the stripped library for modules at -Os", module_file(small), "bytes"))
    printed = re.findall(r"^footprint: (.*): (\d+) (\w+)$", test_log(small), re.M)
    if not printed:
        raise Failure(f"the heap test of {small} printed no figures; 'make device' runs it")
    figures += [(what, int(number), unit) for what, number, unit in printed]
    file = sizes(small)["file"]
    if file > LARGEST_FILE:
        raise Failure(f"the stripped library at -Os has {file} bytes; was it linked for the tiny model (cmake/small.cmake)?")
    if module_file(small) > LARGEST_MODULE_FILE:
        raise Failure(f"the stripped library for modules at -Os has {module_file(small)} bytes, more than {LARGEST_MODULE_FILE}")
    total, path, size = deepest(small)
    figures.append(("stack of the deepest path", total, "bytes"))
    largest = max(size, key=lambda name: size[name])
    figures.append(("largest stack frame", size[largest], "bytes"))
    if size[largest] > LARGEST_FRAME or total > DEEPEST_PATH:
        raise Failure(f"the frame of {largest} has {size[largest]} bytes, the deepest path {total}")
    largest_frames = sorted(((bytes_, name) for name, bytes_ in size.items()), reverse=True)[:8]
    return figures, path, [(bytes_, plain(name)) for bytes_, name in largest_frames]


def page(figures, path, largest, entries):
    rows = "\n".join(f"| {what} | {number} | {unit} |" for what, number, unit in figures)
    way = "\n".join(f"| `{name}` | {size} |" for name, size in path)
    top = "\n".join(f"| `{name}` | {size} |" for size, name in largest)
    return f"""# Footprint

Written by `make footprint` from a build for 64-bit ARM with musl and OpenSSL 1.1; do not edit. `make device` measures
again and fails where a figure has grown by more than 5 %.

| what | figure | unit |
|---|---:|---|
{rows}

The library needs {", ".join(f"`{name}`" for name in entries)}.

**Sizes** are those of the stripped shared library, with the hardening of [security.md](security.md). At `-Os` it has
neither unwind tables nor frame pointers: a debugger walks the stack with the unstripped file. `cmake/small.cmake` has what
else makes it small, and needs a linker that supports 64-bit ARM's tiny code model.

**Heap** is the sum of the sizes requested in a 64-bit program, without the allocator's overhead. A tunnel's share is
everything allocated from the first notification until the tunnel is open and idle; OpenSSL's is what it holds for the session.

**Stack** is the sum of the frames down the deepest path of calls, as the compiler reports them; what the C library,
OpenSSL, json-c and the caller's own callbacks use comes on top. Call by call:

| function | bytes |
|---|---:|
{way}

The largest frames:

| function | bytes |
|---|---:|
{top}
"""


def check(figures, table):
    with open(table, encoding="utf-8") as file:
        promised = {what: int(number) for what, number in re.findall(r"^\| (.*?) \| (\d+) \| \w+ \|$", file.read(), re.M)}
    failed = False
    for what, number, unit in figures:
        if what not in promised:
            print(f"footprint: {what}: {number} {unit}, and {table} does not say it")
            failed = True
        elif number > promised[what] * ALLOWED_GROWTH:
            print(f"footprint: {what}: {number} {unit}, more than 5 % above the promised {promised[what]}")
            failed = True
    for what in promised.keys() - {what for what, _, _ in figures}:
        print(f"footprint: {what} is promised, and was not measured")
        failed = True
    if failed:
        raise Failure(f"{table} does not hold; 'make footprint' renews it")


def main():
    if len(sys.argv) != 5 or sys.argv[1] not in ("check", "write"):
        raise Failure("usage: footprint.py check|write SMALL FAST TABLE")
    action, small, fast, table = sys.argv[1:]
    figures, path, largest = measure(small, fast)
    entries = needed(small)
    programs, programs_passed, ran, passed = tests(small)
    print(f"{'test programs and scripts run':60} {programs:8}, {programs_passed} passed")
    print(f"{'tests in the test programs run':60} {ran:8}, {passed} passed")
    for what, number, unit in figures:
        print(f"{what:60} {number:8} {unit}")
    print(f"{'needed':60} {' '.join(entries)}")
    if action == "check":
        check(figures, table)
    if action == "write":
        with open(table, "w", encoding="utf-8") as file:
            file.write(page(figures, path, largest, entries))


try:
    main()
except (Failure, OSError) as failure:
    sys.exit(f"footprint.py: {failure}")
