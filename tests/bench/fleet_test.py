"""What is read out of the timelines of module processes."""

import os
import tempfile
import unittest

import fleet

TIMELINE = """  0.000 module    waiting  module 'm0'
  0.035 module    waiting  daemon link up
  0.136 module    set-up   set-up started
  0.139 module    set-up   TLS: established
  0.140 module    open     the tunnel is open
  3.000 module    waiting  tunnel failed
  4.000 module    set-up   set-up started
  4.500 module    waiting  set-up failed
  6.000 module    set-up   set-up started
  6.250 module    open     the tunnel is open
"""


class Timelines(unittest.TestCase):
    def test_a_set_up_counts_from_its_start_to_the_open_tunnel_and_not_where_it_failed(self):
        self.assertEqual([round(taken, 3) for taken in fleet.set_ups(TIMELINE)], [0.004, 0.25])

    def test_a_module_that_was_told_nothing_yet_waits(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "m0")
            for lines, waits in ((0, False), (2, True), (3, False)):
                with open(path, "w", encoding="ascii") as file:
                    file.write("".join(TIMELINE.splitlines(keepends=True)[:lines]))
                self.assertEqual(fleet.Fleet.waits(path), waits)


if __name__ == "__main__":
    unittest.main()
