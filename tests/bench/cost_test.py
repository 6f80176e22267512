"""What is read out of a profile, and the table of costs."""

import os
import tempfile
import unittest

import cost


class Cost(unittest.TestCase):
    def test_the_library_s_own_instructions_and_those_it_has_the_c_library_run_count(self):
        profile = ["ob=/x/libcloudtunnel.so.1", "fn=receive", "10 100", "cob=/lib/libc.so.6", "cfn=memcpy",
                   "calls=3 0", "11 40", "12 5"]
        self.assertEqual(cost.library_share(profile), 145)

    def test_calls_into_openssl_the_program_and_the_library_itself_do_not_count_twice(self):
        profile = ["ob=/x/libcloudtunnel.so.1", "fn=receive", "10 100", "cob=/lib/libssl.so.3", "cfn=SSL_read",
                   "calls=1 0", "11 4000", "cob=/x/bench-library", "cfn=on_message", "calls=1 0", "12 900",
                   "cfn=close", "calls=1 0", "13 70"]
        self.assertEqual(cost.library_share(profile), 100)

    def test_what_others_have_the_c_library_run_does_not_count(self):
        profile = ["ob=/lib/libssl.so.3", "fn=SSL_read", "10 100", "cob=/lib/libc.so.6", "cfn=memcpy", "calls=3 0",
                   "11 40", "ob=/lib/libc.so.6", "fn=memcpy", "1 40"]
        self.assertEqual(cost.library_share(profile), 0)

    def test_the_table_is_read_as_it_is_written(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "cost.txt")
            counts = {"echo plain 16 B, 1 tunnel": 3000, "echo plain 16 KiB, 128 tunnels": 4000, "idle turn": 30}
            for enforced in (False, True):
                cost.write_table(path, counts, enforced)
                self.assertEqual(cost.read_table(path), (counts, enforced))

    def test_a_message_that_costs_more_than_a_tenth_more_at_128_tunnels_is_named(self):
        counts = {row: 1000 for row in cost.all_rows()}
        counts["echo TLS 1 KiB, 128 tunnels"] = 1200
        self.assertEqual(cost.growth_faults(counts), ["echo TLS 1 KiB costs 20 % more at 128 tunnels"])


if __name__ == "__main__":
    unittest.main()
