#!/usr/bin/env python3
"""Gathers the formats of the library's log messages from its sources.

Usage: gather_formats.py SOURCE_FOLDER [OUTPUT]

Every LOG(level, format, arguments...) call gives one row `{level, "format"},` a format; a call that chooses its format
with ?: gives several. Without OUTPUT the rows go to standard output. A call whose format is not made of literals alone
ends the run with status 1 and the call's place: a message that the program cannot know must not pass unnoticed.
"""

import pathlib
import re
import sys

LEVELS = ["init", "error", "event", "fsm", "connect", "package", "package_detail", "timer", "timer_detail"]
CALL = re.compile(r"\bLOG\(")
# A comment, a text or a character; what else there is comes a character at a time.
TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'|::|.', re.S)
CLOSING = {"(": ")", "[": "]", "{": "}"}


class Unreadable(Exception):
    pass


def arguments(text, start):
    """The arguments of the call whose opening parenthesis is in front of `start`, as lists of tokens."""
    found, depth = [[]], 0
    for match in TOKEN.finditer(text, start):
        token = match.group()
        if token.startswith(("//", "/*")) or token.isspace():
            continue
        if token in CLOSING:
            depth += 1
        elif token in CLOSING.values():
            if depth == 0:
                return found
            depth -= 1
        if token == "," and depth == 0:
            found.append([])
        else:
            found[-1].append(token)
    raise Unreadable("the call has no end")


def outside(tokens):
    """The places of the tokens that no bracket encloses."""
    depth = 0
    for at, token in enumerate(tokens):
        depth -= token in CLOSING.values()
        if depth == 0:
            yield at, token
        depth += token in CLOSING


def alternatives(tokens):
    """The formats that an expression of literals and ?: can have; literals side by side are one."""
    question = next((at for at, token in outside(tokens) if token == "?"), None)
    if question is None:
        if not tokens or not all(token.startswith('"') for token in tokens):
            raise Unreadable(f"its format is no literal: {''.join(tokens)}")
        return [" ".join(tokens)]
    rest = tokens[question + 1:]  # in front of it is the condition
    nested = 0
    for at, token in outside(rest):
        nested += token == "?"
        if token == ":" and nested == 0:
            return alternatives(rest[:at]) + alternatives(rest[at + 1:])
        nested -= token == ":"
    raise Unreadable("a ? has no :")


def without_comments(text):
    """The text with its comments blanked, so that no call is found in one; line numbers stay."""
    def blanked(match):
        token = match.group()
        return re.sub(r"[^\n]", " ", token) if token.startswith(("//", "/*")) else token
    return TOKEN.sub(blanked, text)


def gather(folder):
    rows = {}
    for file in sorted(pathlib.Path(folder).rglob("*.cpp")):
        text = without_comments(file.read_text(encoding="utf-8"))
        for call in CALL.finditer(text):
            place = f"{file}:{text.count(chr(10), 0, call.start()) + 1}"
            try:
                given = arguments(text, call.end())
                level = "".join(given[0])
                if level not in LEVELS or len(given) < 2:
                    raise Unreadable("its level is none of the known ones")
                for literal in alternatives(given[1]):
                    rows[literal] = LEVELS.index(level) + 1
            except Unreadable as reason:
                raise Unreadable(f"{place}: a LOG call cannot be read: {reason}") from None
    if not rows:
        raise Unreadable(f"{folder}: no LOG call was found")
    return [f"{{{level}, {literal}}}," for literal, level in rows.items()]


def main():
    try:
        rows = "\n".join(gather(sys.argv[1])) + "\n"
    except Unreadable as reason:
        sys.exit(str(reason))
    if len(sys.argv) > 2:
        pathlib.Path(sys.argv[2]).write_text(rows, encoding="utf-8")
    else:
        sys.stdout.write(rows)


if __name__ == "__main__":
    main()
