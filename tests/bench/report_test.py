"""What the bench writes about what it measured."""

import unittest

import report
import rows


def result(value, disturbed=0):
    return {"median": value, "low": value * 0.9, "high": value * 1.1, "disturbed": disturbed}


def record(clients=("raw", "floor", "library", "beast")):
    """A record in which the library is as fast as the floor, and Boost.Beast half as fast."""
    rates = {"raw": 100000, "floor": 80000, "beast": 40000}
    measured = {row.label: {name: result(rates.get(name, 80000)) for name in row.clients(list(clients))}
                for row in rows.all_rows()}
    return {"clients": list(clients), "rows": measured, "runs_repeated": 7}


class Page(unittest.TestCase):
    def test_a_row_shows_ratios_with_their_spread_and_the_ratio_to_the_floor(self):
        self.assertIn("| echo plain 16 B, 1 tunnel | 100,000 | 0.80 (0.72-0.88) | 0.80 (0.72-0.88) | 0.40 (0.36-0.44) | "
                      "1.00 |", report.ratio_table(record()))

    def test_a_row_in_which_the_library_is_behind_the_floor_is_named(self):
        one = record()
        one["rows"]["flood TLS 1 MiB, 1 tunnel"]["library"] = result(60000)
        self.assertIn("behind the floor in: flood TLS 1 MiB, 1 tunnel (0.75).", report.summary(one))

    def test_a_row_in_which_a_peer_is_faster_is_named(self):
        one = record()
        one["rows"]["set-up TLS"]["beast"] = result(90000)
        self.assertIn("Boost.Beast is faster in 1 of 30 rows: set-up TLS.", report.summary(one))

    def test_a_peer_that_is_not_installed_has_no_column(self):
        self.assertNotIn("Beast", report.ratio_table(record(clients=("raw", "floor", "library"))))

    def test_disturbed_runs_that_count_are_counted(self):
        one = record()
        one["rows"]["set-up TLS"]["raw"] = result(90000, disturbed=2)
        self.assertIn("7 were. 2 of those that count stayed disturbed", report.performance(one, rows.FULL, []))


if __name__ == "__main__":
    unittest.main()
