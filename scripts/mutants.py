#!/usr/bin/env python3
"""Plants small faults in the library, one at a time, and reports those that no test notices.

mutants.py [--count N] [--seed N] [--jobs N] [--only REGEX] PROJECT WORK

PROJECT is the root of the sources, of which WORK gets a copy and the build trees: the sources themselves are only read.
A fault changes one thing in a source file under src/: an operator, a constant, a condition, what is returned, the order
of two arguments, or it removes a statement. The same seed draws the same faults from the same sources. One that does
not build, or that gives the same object code, is not counted: another is drawn in its place.

The tests are those of CTest whose name begins with the name of a component (a folder of src/) or with `whole`. Those of
the fault's own component run first, and the rest only while none has failed. What survives them is built and tested
again under the sanitizers, which notice a block that is never freed.

Exit status: 0 when every fault was noticed, 1 when some survived, 2 when the faults cannot be tried.
"""

import argparse
import glob
import json
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import threading
from collections import namedtuple

# A change of the text between two offsets of a source file.
Fault = namedtuple("Fault", "kind file line start end text")

TEST_TIMEOUT = 30  # seconds; a fault may make a loop endless
LARGEST_PROCESS = 4 << 30  # bytes; or make it take memory

PLAIN = ["-DCMAKE_BUILD_TYPE=Release", "-DCLOUDTUNNEL_BUILD_TOOLS=OFF"]
SANITIZED = ["-DCMAKE_BUILD_TYPE=Debug", "-DCLOUDTUNNEL_BUILD_TOOLS=OFF", "-DCLOUDTUNNEL_SANITIZE=ON"]


class Refusal(Exception):
    pass


# ------------------------------------------------------------------------------------------------------------- faults
TOKEN = re.compile(r"""
    (?P<blank>\s+ | //[^\n]* | /\*.*?\*/ | \#(?:\\\n|[^\n])*)
  | (?P<text>"(?:\\.|[^"\\])*" | '(?:\\.|[^'\\])+')
  | (?P<number>\d(?:'?[\w.])*)
  | (?P<name>\w+)
  | (?P<sign><<=|>>=|<=>|\.\.\.|::|->|\+\+|--|&&|\|\||[-+*/%&|^=!<>]=|<<|>>|.)
""", re.X | re.S)

# The sources are formatted: a sign with a blank on either side is an operator between two values.
BETWEEN = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"], "&": ["|"], "|": ["&"],
    "^": ["|"], "<<": [">>"], ">>": ["<<"], "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
}
ANYWHERE = {"++": ["--"], "--": ["++"], "!": [""]}
WORDS = {"true": "false", "false": "true"}
CLOSING = {"(": ")", "[": "]", "{": "}"}
# A line that begins with one of these is no statement that can be left out.
KEPT = {"return", "using", "static_assert", "typedef", "namespace", "struct", "class", "enum", "union", "extern",
        "template", "public", "private", "protected", "constexpr", "const", "static", "friend", "goto", "case",
        "default", "auto", "inline", "explicit", "operator"}


class Source:
    """The tokens of one source file, and the faults that can be planted in it."""

    def __init__(self, file, text):
        self.file, self.text = file, text
        every = [(match.lastgroup, match[0], match.start(), match.end()) for match in TOKEN.finditer(text)]
        self.tokens = [token for token in every if token[0] != "blank"]
        self.partner = self.match_brackets()
        self.found = []

    def match_brackets(self):
        """The index of the closing bracket for each opening one, and the other way round."""
        partner, open_ones = {}, []
        for i, (kind, text, _, _) in enumerate(self.tokens):
            if kind == "sign" and text in CLOSING:
                open_ones.append(i)
            elif kind == "sign" and text in CLOSING.values() and open_ones:
                partner[i] = open_ones.pop()
                partner[partner[i]] = i
        return partner

    def word(self, i):
        return self.tokens[i][1] if 0 <= i < len(self.tokens) else ""

    def blank_before(self, i):
        return self.tokens[i][2] > 0 and self.text[self.tokens[i][2] - 1].isspace()

    def blank_after(self, i):
        return self.text[self.tokens[i][3]:self.tokens[i][3] + 1].isspace()

    def plant(self, kind, first, last, text):
        """A fault of that kind: the tokens from first to last become this text."""
        start, end = self.tokens[first][2], self.tokens[last][3]
        if self.text[start:end] != text:
            line = self.text.count("\n", 0, start) + 1
            self.found.append(Fault(kind, self.file, line, start, end, text))

    def span(self, first, last):
        return self.text[self.tokens[first][2]:self.tokens[last][3]]

    def faults(self):
        i = 0
        while i < len(self.tokens):
            if self.word(i) == "static_assert":  # the compiler's own test
                i = self.partner.get(i + 1, i)
            self.token_faults(i)
            i += 1
        self.statement_faults()
        return self.found

    def token_faults(self, i):
        kind, text, _, _ = self.tokens[i]
        if kind == "number":
            self.constant(i, text)
        elif text in WORDS:
            self.plant("constant", i, i, WORDS[text])
        elif kind == "sign":
            between = self.blank_before(i) and self.blank_after(i)
            for other in BETWEEN.get(text, []) if between else ANYWHERE.get(text, []):
                self.plant("operator", i, i, other)
            if text == "?":
                self.choice(i)
        elif text in ("if", "while") and i + 1 in self.partner:
            self.condition(i + 1)
        elif text == "return" and self.word(i + 1) != ";":
            end = self.statement_end(i)
            if end:
                self.plant("return", i, end, "return {};")
        elif kind == "name" and self.word(i + 1) == "(" and not self.blank_after(i):
            self.arguments(i + 1)

    def constant(self, i, text):
        match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)", text)
        if match:
            value = int(match[1].replace("'", ""), 0 if match[1][1:2] in "xX" else 10)
            for other in (value + 1, value - 1):
                if other >= 0:
                    self.plant("constant", i, i, f"{other}{match[2]}")
                else:
                    self.plant("constant", i, i, f"({other})")

    def condition(self, opening):
        closing = self.partner[opening]
        first = opening + 1
        for i in range(first, closing):  # what stands before a semicolon is no condition
            if self.word(i) == ";":
                first = i + 1
        self.plant("condition", first, closing - 1, f"!({self.span(first, closing - 1)})")

    def choice(self, question):
        """The two values of a conditional operator change places."""
        colon = self.next_at_level(question + 1, {":"})
        end = colon and self.next_at_level(colon + 1, {";", ",", ")", "]", "}", ":"})
        if end and self.word(colon) == ":":
            yes, no = self.span(question + 1, colon - 1), self.span(colon + 1, end - 1)
            self.plant("condition", question + 1, end - 1, f"({no}) : ({yes})")

    def arguments(self, opening):
        closing = self.partner.get(opening)
        if not closing or closing == opening + 1:
            return
        commas = [opening]
        while True:
            comma = self.next_at_level(commas[-1] + 1, {","}, closing)
            if not comma:
                break
            commas.append(comma)
        commas.append(closing)
        for before, between, behind in zip(commas, commas[1:], commas[2:]):
            one, other = self.span(before + 1, between - 1), self.span(between + 1, behind - 1)
            self.plant("arguments", before + 1, behind - 1, f"{other}, {one}")

    def next_at_level(self, i, wanted, limit=None):
        """The next of these signs that no bracket hides, a closing bracket being an end."""
        limit = len(self.tokens) if limit is None else limit
        questions = 0
        while i < limit:
            text = self.word(i)
            if text == ":" and questions:
                questions -= 1
            elif text in wanted:
                return i
            elif text in CLOSING.values() or text == ";":
                return None
            elif text == "?":
                questions += 1
            i = self.partner[i] + 1 if text in CLOSING and i in self.partner else i + 1
        return None

    def statement_end(self, i):
        while i < len(self.tokens) and self.word(i) != ";":
            if self.word(i) in CLOSING.values():
                return None
            i = self.partner[i] + 1 if self.word(i) in CLOSING and i in self.partner else i + 1
        return i if i < len(self.tokens) else None

    def statement_faults(self):
        i = 0
        while i < len(self.tokens):
            text = self.word(i)
            if text in ("if", "for", "while", "switch") and i + 1 in self.partner:
                i = self.partner[i + 1] + 1
                continue
            end = i
            while end < len(self.tokens) and self.word(end) not in ("{", "}", ";"):
                end = self.partner[end] + 1 if self.word(end) in "([" and end in self.partner else end + 1
            declares = self.tokens[i][0] == "name" and i + 1 < len(self.tokens) and self.tokens[i + 1][0] == "name"
            if self.word(end) == ";" and end > i and text not in KEPT and not declares and text not in ("else", "do"):
                self.plant("statement", i, end, "{}")
            i = i + 1 if text in ("else", "do") else end + 1


def all_faults(project):
    found = []
    for file in sorted(glob.glob("src/*/*.cpp", root_dir=project)):
        with open(os.path.join(project, file), encoding="utf-8") as source:
            found += Source(file, source.read()).faults()
    return found


def drawn(faults, seed):
    """The faults in an order that the seed decides, each kind as often as any other."""
    chance = random.Random(seed)
    kinds = {}
    for fault in faults:
        kinds.setdefault(fault.kind, []).append(fault)
    for kind in kinds.values():
        chance.shuffle(kind)
    order = []
    while kinds:
        name = chance.choice(sorted(kinds))
        order.append(kinds[name].pop())
        if not kinds[name]:
            del kinds[name]
    return order


# -------------------------------------------------------------------------------------------------------------- trees
class Runner:
    """Starts programs, and ends them all when the run is over."""

    def __init__(self):
        self.lock = threading.Lock()
        self.running = set()
        self.over = False

    def run(self, *command, cwd=None, limited=False):
        """The exit status of a program, and what it printed."""
        def limits():
            if limited:
                resource.setrlimit(resource.RLIMIT_AS, (LARGEST_PROCESS, LARGEST_PROCESS))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        with self.lock:
            if self.over:
                raise SystemExit(130)
            process = subprocess.Popen(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                       stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True,
                                       preexec_fn=limits, env={**os.environ, "GTEST_FAIL_FAST": "1"})
            self.running.add(process)
        output = process.communicate()[0]
        with self.lock:
            self.running.discard(process)
        return process.returncode, output

    def end(self):
        with self.lock:
            self.over = True
            for process in self.running:
                try:
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass


def mirror(project, copy):
    """Makes the copy equal to the project. A file that is equal keeps its time, so that nothing is built for it."""
    wanted = set()
    for folder, folders, files in os.walk(project):
        folders[:] = [name for name in folders if name not in ("build", ".git")]
        inside = os.path.relpath(folder, project)
        os.makedirs(os.path.join(copy, inside), exist_ok=True)
        for name in files:
            path = os.path.normpath(os.path.join(inside, name))
            wanted.add(path)
            source, target = os.path.join(project, path), os.path.join(copy, path)
            if not same_bytes(source, target):
                shutil.copy(source, target)
    for folder, _, files in os.walk(copy):
        for name in files:
            if os.path.relpath(os.path.join(folder, name), copy) not in wanted:
                os.remove(os.path.join(folder, name))


def contents(path):
    with open(path, "rb") as file:
        return file.read()


def replace(path, data, time):
    """Replaces the contents of a file and keeps its time."""
    with open(path, "wb") as file:
        file.write(data)
    os.utime(path, ns=(time, time))


def same_bytes(one, other):
    return os.path.exists(other) and contents(one) == contents(other)


class Tree:
    """A build tree of the copy, in which one object file at a time is made from a faulty source."""

    def __init__(self, runner, copy, folder, options):
        self.runner, self.copy, self.folder = runner, copy, folder
        self.limited = "-DCLOUDTUNNEL_SANITIZE=ON" not in options  # the address sanitizer takes terabytes of addresses
        self.marker = os.path.join(folder, "planted")
        if os.path.exists(self.marker):  # a run was interrupted: what it left is made again
            with open(self.marker, encoding="utf-8") as marker:
                os.remove(marker.read())
            os.remove(self.marker)
        self.must("cmake", "-S", copy, "-B", folder, "-G", "Ninja", f"-DCLOUDTUNNEL_TEST_TIMEOUT={TEST_TIMEOUT}",
                  "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", "--no-warn-unused-cli", *options)
        components = {path.split("/")[-2] for path in glob.glob(os.path.join(copy, "src/*/*.cpp"))}
        listed = re.findall(r"^ *Test +#\d+: (\w+)$", self.must("ctest", "--test-dir", folder, "-N"), re.M)
        self.tests = [name for name in listed if name.split("_")[0] in components | {"whole"}]
        if not self.tests:
            raise Refusal(f"no tests in {folder}; install GoogleTest")
        with open(os.path.join(folder, "compile_commands.json"), encoding="utf-8") as commands:
            self.commands = {os.path.relpath(entry["file"], copy): shlex.split(entry["command"])
                             for entry in json.load(commands) if "cloudtunnel_objects.dir" in entry["command"]}
        self.unlink()  # what the run before this one linked may hold its last fault
        self.must("ninja", "-C", folder, *self.tests)
        failed = self.failing(self.tests)
        if failed:
            raise Refusal(f"{failed} fails without a fault; mend it first")

    def must(self, *command):
        status, output = self.runner.run(*command)
        if status != 0:
            lines = output.strip().splitlines() or ["it gave no reason"]
            raise Refusal(f"{' '.join(command[:4])} failed: {lines[-1]}; build {self.copy} by hand to see why")
        return output

    def unlink(self):
        """Removes the libraries and the tests: ninja looks at the time of an object file, which stays as it was."""
        for folder, _, files in os.walk(self.folder):
            for name in files:
                if name in self.tests or name.startswith("libcloudtunnel."):
                    os.remove(os.path.join(folder, name))

    def failing(self, tests):
        """The first of these tests that fails."""
        status, output = self.runner.run("ctest", "--test-dir", self.folder, "-R", f"^({'|'.join(tests)})$",
                                         "--stop-on-failure", "--no-tests=error", limited=self.limited)
        if status == 0:
            return None
        match = re.search(r"^\s*\d+ - (\w+) \(", output, re.M)
        return match[1] if match else tests[0]

    def in_order(self, file):
        """The tests in groups: the source's own, its component's, the whole-tunnel tests, all others."""
        _, component, name = file.split("/")
        own = f"{component}_{name.split('.')[0]}_test"
        chosen = [lambda test: test == own, lambda test: test.startswith(component + "_"),
                  lambda test: test.startswith("whole_"), lambda test: True]
        left = list(self.tests)
        for wanted in chosen:
            group = [test for test in left if wanted(test)]
            left = [test for test in left if not wanted(test)]
            if group:
                yield group

    def verdict(self, fault):
        """The test that notices the fault, None where none does, and UNCOUNTED where there is nothing to notice."""
        command = self.commands[fault.file]
        source = os.path.join(self.folder, "faulty", fault.file)
        made = os.path.join(self.folder, "faulty.o")
        os.makedirs(os.path.dirname(source), exist_ok=True)
        with open(source, "w", encoding="utf-8") as file:
            file.write(planted(self.copy, fault))
        right, named = os.path.join(self.copy, fault.file), command[command.index("-o") + 1]
        kept = os.path.join(self.folder, named)
        swap = {right: source, named: made}
        status, _ = self.runner.run(*(swap.get(word, word) for word in command), cwd=self.folder)
        if status != 0 or same_bytes(made, kept):
            return UNCOUNTED
        original, time = contents(kept), os.stat(kept).st_mtime_ns
        with open(self.marker, "w", encoding="utf-8") as marker:
            marker.write(kept)
        try:
            replace(kept, contents(made), time)
            self.unlink()
            for tests in self.in_order(fault.file):
                if self.runner.run("ninja", "-C", self.folder, *tests)[0] != 0:
                    return UNCOUNTED  # it does not link
                failed = self.failing(tests)
                if failed:
                    return failed
            return None
        finally:
            replace(kept, original, time)
            os.remove(self.marker)


UNCOUNTED = "uncounted"


def text_of(project, file):
    with open(os.path.join(project, file), encoding="utf-8") as source:
        return source.read()


def planted(project, fault):
    text = text_of(project, fault.file)
    return text[:fault.start] + fault.text + text[fault.end:]


# ---------------------------------------------------------------------------------------------------------------- run
def try_all(trees, faults, count):
    """The verdicts on the first `count` faults that count, as (fault, verdict) pairs, and how many did not count."""
    verdicts, lock, errors = {}, threading.Lock(), []
    waiting = iter(enumerate(faults))

    def counted():
        return [i for i in sorted(verdicts) if verdicts[i][1] != UNCOUNTED]

    def work(tree):
        try:
            while True:
                with lock:
                    if errors or len(counted()) >= count:
                        return
                    i, fault = next(waiting, (None, None))
                if fault is None:
                    return
                verdict = tree.verdict(fault)
                with lock:
                    verdicts[i] = fault, verdict
                    if verdict != UNCOUNTED:
                        print(f"{fault.file}:{fault.line}: {fault.kind}: {verdict or 'survived'}", flush=True)
        except Exception as error:  # handed to the main thread
            errors.append(error)

    workers = [threading.Thread(target=work, args=(tree,), daemon=True) for tree in trees]
    for worker in workers:
        worker.start()
    for worker in workers:
        while worker.is_alive():
            worker.join(1)
    if errors:
        raise errors[0]
    kept = counted()[:count]
    uncounted = sum(1 for i in verdicts if verdicts[i][1] == UNCOUNTED and kept and i < kept[-1])
    return [verdicts[i] for i in kept], uncounted


def described(project, fault):
    """The fault's place, and its lines before and after."""
    text = text_of(project, fault.file)
    first = text.rfind("\n", 0, fault.start) + 1
    last = text.find("\n", fault.end)
    before = text[first:last]
    after = text[first:fault.start] + fault.text + text[fault.end:last]
    lines = [f"  {sign} {line.strip()}" for sign, part in (("-", before), ("+", after)) for line in part.splitlines()]
    return "\n".join([f"{fault.file}:{fault.line}: {fault.kind}", *lines])


def main(runner):
    parser = argparse.ArgumentParser(add_help=False)
    parser.error = lambda message: (_ for _ in ()).throw(Refusal(f"{message}; {USAGE}"))
    parser.add_argument("--count", type=int, default=60)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--only", type=re.compile, default=re.compile(""))
    parser.add_argument("project")
    parser.add_argument("work")
    options = parser.parse_args()

    work = os.path.abspath(options.work)
    copy = os.path.join(work, "copy")
    mirror(options.project, copy)
    faults = [fault for fault in drawn(all_faults(copy), options.seed) if options.only.search(fault.file)]
    if not faults:
        raise Refusal(f"no faults to plant in {options.project}/src; {USAGE}")

    def trees(name, count, settings):
        return [Tree(runner, copy, os.path.join(work, f"{name}-{i + 1}"), settings) for i in range(count)]

    tried, uncounted = try_all(trees("plain", options.jobs, PLAIN), faults, options.count)
    survivors = [fault for fault, verdict in tried if verdict is None]
    if survivors:
        print(f"{len(survivors)} survivors once more, under the sanitizers", flush=True)
        again, _ = try_all(trees("sanitized", 1, SANITIZED), survivors, len(survivors))
        noticed = {fault for fault, verdict in again if verdict is not None}
        survivors = [fault for fault in survivors if fault not in noticed]
    for fault in survivors:
        print(f"survived: {described(copy, fault)}")
    noticed = len(tried) - len(survivors)
    print(f"seed {options.seed}: {len(tried)} faults, {noticed} noticed, {len(survivors)} survived; {uncounted} more "
          "did not build or changed no code")
    return 1 if survivors else 0


USAGE = "call it as mutants.py [--count N] [--seed N] [--jobs N] [--only REGEX] PROJECT WORK"

if __name__ == "__main__":
    def stop(*_):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, stop)
    programs = Runner()
    try:
        sys.exit(main(programs))
    except (Refusal, OSError) as refusal:
        print(f"mutants.py: {refusal}", file=sys.stderr)
        sys.exit(2)
    except KeyboardInterrupt:
        print("mutants.py: interrupted", file=sys.stderr)
        sys.exit(130)
    finally:
        programs.end()
