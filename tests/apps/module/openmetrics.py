"""openmetrics.py FILE NAME=VALUE...: the file is in the OpenMetrics text format, and has these samples."""

import re
import sys

TYPES = {"counter": "_total", "gauge": "", "stateset": ""}
NAME = "[a-z_][a-z0-9_]*"
LABEL = NAME + r'="(?:[^"\\\n]|\\.)*"'
SAMPLE = re.compile(rf"({NAME})(\{{{LABEL}(?:,{LABEL})*\}})? ([0-9]+(?:\.[0-9]+)?)")
HEAD = re.compile(rf"# (TYPE|UNIT) ({NAME}) ([a-z]+)")

with open(sys.argv[1], encoding="utf-8") as file:
    text = file.read()
assert text.endswith("\n# EOF\n"), "the end is missing"
samples, kinds, family = {}, {}, None
for number, line in enumerate(text.splitlines()[:-1], 1):
    head, sample = HEAD.fullmatch(line), SAMPLE.fullmatch(line)
    assert head or sample, f"line {number} is neither: {line}"
    if head and head[1] == "TYPE":
        assert head[2] not in kinds, f"line {number}: the family is there twice"
        family = head[2]
        kinds[family] = head[3]
        assert head[3] in TYPES, f"line {number}: unknown type"
    elif head:
        assert head[2] == family and family.endswith("_" + head[3]), f"line {number}: a unit out of place"
    else:
        assert sample[1] == family + TYPES[kinds[family]], f"line {number}: not of the family {family}"
        key = sample[1] + (sample[2] or "")
        assert key not in samples, f"line {number}: the sample is there twice"
        samples[key] = sample[3]
for wanted in sys.argv[2:]:
    key, value = wanted.rsplit("=", 1)
    assert samples.get(key) == value, f"{key} is {samples.get(key)}, expected {value}"
