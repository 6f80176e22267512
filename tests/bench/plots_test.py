"""The page and its plots, drawn by gnuplot."""

import os
import tempfile
import unittest

import report
import report_test
import rows


class Plots(unittest.TestCase):
    def test_every_plot_that_is_drawn_stands_on_the_page(self):
        with tempfile.TemporaryDirectory() as folder:
            path = report.write(report_test.record(), rows.FULL, folder)
            with open(path, encoding="utf-8") as file:
                page = file.read()
            drawn = os.listdir(os.path.join(folder, "performance"))
            self.assertEqual(len(drawn), 6)
            for name in drawn:
                self.assertIn(f"(performance/{name})", page)


if __name__ == "__main__":
    unittest.main()
