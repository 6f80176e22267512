#!/usr/bin/env python3
"""Holds every call between the components of the library against the layer table.

layers.py READELF TABLE OBJECT...

TABLE is docs/architecture.md: its rows `| 4 | `src/conn` | ...` give each component, a folder of src/, its layer.
OBJECT are the object files of the library, each at a path that ends like its source: .../src/conn/send.cpp.o. A call is
a use of a function or of data that another component defines. A component may call components of lower layers, and of
its own layer as long as no call comes back. The script prints each call that runs upwards or in a circle.

Exit status: 0 without such a call, 1 with one, 2 when the check itself cannot be made.
"""

import os
import re
import subprocess
import sys
from collections import namedtuple

Call = namedtuple("Call", "component source function symbol callee_component callee_source")

ROW = re.compile(r"^\| *(\d+) *\| *`src/(\w+)/?` *\|")
SOURCE = re.compile(r"(?:^|/)(src/(\w+)/[^/]+)\.o(?:bj)?$")
SECTION = re.compile(r"^ *\[ *(\d+)\] (\S+)")
RELOCATIONS = re.compile(r"^Relocation section '\.rela?(\.\S+)'")
RELOCATION = re.compile(r"^([0-9a-f]{8,16}) +[0-9a-f]+ +R_\S+ +[0-9a-f]+ +(.+?)(?: [+-] [0-9a-f]+)?$")
SYMBOL = re.compile(r"^ *\d+: ([0-9a-f]+) +(\S+) (\w+) +(\w+) +\w+ +(?:\[.*\] +)?(\w+) (.+)$")


class Refusal(Exception):
    pass


def read_table(path):
    """The layer of each component."""
    layers = {}
    with open(path, encoding="utf-8") as table:
        for row in filter(None, map(ROW.match, table)):
            layer, component = int(row[1]), row[2]
            if component in layers:
                raise Refusal(f"{path} gives src/{component} two rows; leave one")
            layers[component] = layer
    if not layers:
        raise Refusal(f"no row like '| 4 | `src/conn` |' in {path}; name the file that has the layer table")
    return layers


class Object:
    """What one object file defines, and what it uses of others: (function, symbol) pairs."""

    def __init__(self, readelf, path):
        match = SOURCE.search(path)
        if not match:
            raise Refusal(f"'{path}' is no object of a file in a folder of src/; name the library's object files")
        self.source, self.component = match[1], match[2]
        self.defined = set()
        self.uses = set()
        try:
            text = subprocess.run([readelf, "-W", "-C", "-S", "-s", "-r", path],
                                  check=True, capture_output=True, text=True).stdout
        except (OSError, subprocess.CalledProcessError) as error:
            raise Refusal(f"{error}; build the target cloudtunnel_objects first") from error
        self.read(text.splitlines())

    def read(self, lines):
        section_names, extents, undefined, relocations = {}, {}, set(), []
        section = None
        for line in lines:
            if match := RELOCATIONS.match(line):
                section = match[1]
            elif match := RELOCATION.match(line):
                relocations.append((section, int(match[1], 16), match[2]))
            elif match := SYMBOL.match(line):
                value, size, kind, binding, index, name = match.groups()
                if index == "UND":
                    undefined.add(name)
                    continue
                if binding in ("GLOBAL", "WEAK"):
                    self.defined.add(name)
                if kind in ("FUNC", "OBJECT"):
                    start = int(value, 16)
                    extents.setdefault(section_names.get(index), []).append((start, start + int(size, 0), name))
            elif match := SECTION.match(line):
                section_names[match[1]] = match[2]
        for section, offset, name in relocations:
            if name in undefined:
                users = [user for start, end, user in extents.get(section, []) if start <= offset < end]
                self.uses.add((users[0] if users else section, name))
        # A use without a relocation does not exist in today's objects; should one appear, it is not lost.
        self.uses |= {("(unknown)", name) for name in undefined - {used for _, used in self.uses}}


def calls_between_components(objects):
    """Every use of a symbol that another component defines."""
    definers = {}
    for file in objects:
        for name in file.defined:
            definers.setdefault(name, []).append(file)
    for file in objects:
        for function, name in sorted(file.uses):
            for definer in definers.get(name, []):
                if definer.component != file.component:
                    yield Call(file.component, file.source, function, name, definer.component, definer.source)


def circles(calls):
    """The groups of components in which every one reaches every other."""
    reached = {}
    for call in calls:
        reached.setdefault(call.component, set()).add(call.callee_component)
    grown = True
    while grown:
        grown = False
        for targets in reached.values():
            further = set().union(*(reached.get(target, set()) for target in targets)) - targets
            targets |= further
            grown = grown or bool(further)
    groups = {frozenset(other for other in targets if component in reached.get(other, ())) for component, targets
              in reached.items() if component in targets}
    return sorted(map(sorted, groups))


def described(call):
    return f"{call.source}: {call.function} uses {call.symbol} of {call.callee_source}"


def findings(layers, calls):
    upwards = [call for call in calls if layers[call.callee_component] > layers[call.component]]
    for call in upwards:
        yield (f"{described(call)}: a call upwards, from layer {layers[call.component]} (src/{call.component}) "
               f"to layer {layers[call.callee_component]} (src/{call.callee_component})")
    # A circle through several layers has a call upwards, which is named above; the other circles stay in one layer.
    level = [call for call in calls if layers[call.callee_component] == layers[call.component]]
    for group in circles(level):
        names = " and ".join(f"src/{component}" for component in group)
        for call in level:
            if call.component in group and call.callee_component in group:
                yield f"{described(call)}: in a circle between {names}"


def main(arguments):
    if len(arguments) < 3:
        raise Refusal("too few arguments; call it as layers.py READELF TABLE OBJECT...")
    readelf, table, paths = arguments[0], arguments[1], arguments[2:]
    layers = read_table(table)
    objects = [Object(readelf, path) for path in paths]
    components = {file.component for file in objects}
    for component in sorted(components - layers.keys()):
        raise Refusal(f"src/{component} has no layer; give it a row in {table}")
    for component in sorted(layers.keys() - components):
        raise Refusal(f"{table} has a row for src/{component}, of which there is no object; remove the row")
    calls = list(calls_between_components(objects))
    found = list(findings(layers, calls))
    for finding in found:
        print(finding)
    print(f"{len(calls)} calls between {len(components)} components, {len(found)} of them upwards or in a circle")
    return 1 if found else 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except (Refusal, OSError) as refusal:
        print(f"{os.path.basename(sys.argv[0])}: {refusal}", file=sys.stderr)
        sys.exit(2)
