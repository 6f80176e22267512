#!/usr/bin/env python3
"""gather_formats.py finds the format of every LOG call, and stops at one that it cannot read.

Usage: gather_formats_test.py GATHERER SOURCE_FOLDER
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

GATHERER, SOURCES = sys.argv.pop(1), sys.argv.pop(1)


def gather(folder):
    return subprocess.run([sys.executable, GATHERER, folder], capture_output=True, text=True)


class GatherFormats(unittest.TestCase):
    def of(self, source):
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "source.cpp").write_text(source)
            return gather(folder)

    def rows(self, source):
        result = self.of(source)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout.splitlines()

    def test_a_call_gives_its_level_and_its_format(self):
        self.assertEqual(self.rows('void f() { LOG(error, "a %d.", g(1, 2)); }'), ['{2, "a %d."},'])

    def test_literals_side_by_side_are_one_format(self):
        self.assertEqual(self.rows('LOG(package,\n    "a "  // why\n    "b");'), ['{6, "a " "b"},'])

    def test_each_choice_is_a_format(self):
        source = 'LOG(init, !a::b ? "one" : c(x ? 1 : 2) ? "two" : "three", d);'
        self.assertEqual(self.rows(source), ['{1, "one"},', '{1, "two"},', '{1, "three"},'])
        self.assertEqual(self.rows('LOG(fsm, a ? b ? "x" : "y" : "z");'), ['{4, "x"},', '{4, "y"},', '{4, "z"},'])

    def test_quotes_and_brackets_within_a_literal_end_nothing(self):
        self.assertEqual(self.rows(r'LOG(timer, "(\", %c)", \')\');'.replace("\\'", "'")), [r'{8, "(\", %c)"},'])

    def test_a_call_in_a_comment_is_none(self):
        self.assertEqual(self.rows('// LOG(error, text);\n/* LOG(x) */ LOG(event, "a");'), ['{3, "a"},'])

    def test_a_format_that_is_no_literal_stops_the_build_with_its_place(self):
        for call in ("LOG(error, text);", 'LOG(error, a ? "x" : text);', 'LOG(loud, "x");', 'LOG(error, "x"'):
            result = self.of("\n" + call)
            self.assertEqual(result.returncode, 1, call)
            self.assertIn("source.cpp:2: a LOG call cannot be read", result.stderr)

    def test_a_folder_without_a_call_stops_the_build(self):
        self.assertEqual(self.of("int x;").returncode, 1)

    def test_every_call_of_the_library_is_found(self):
        result = gather(SOURCES)
        self.assertEqual(result.returncode, 0, result.stderr)
        # Another way to count: each literal that follows the level, or a ? or : behind it, begins a format of the list.
        for file in pathlib.Path(SOURCES).rglob("*.cpp"):
            for first in re.findall(r'\bLOG\(\s*\w+,\s*("(?:\\.|[^"\\])*")', file.read_text()):
                self.assertIn(f", {first}", result.stdout, file)


unittest.main()
