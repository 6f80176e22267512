"""Every client of the bench carries every load, plain and TLS. clients_test.py BENCH, the folder of the programs."""

import os
import sys
import unittest

import processes
import rows

FOLDER = sys.argv.pop(1)
PORTS = {}


def run(client, *arguments, tls):
    port = PORTS["tls" if tls else "plain"]
    secure = ["--tls"] if tls else []
    return processes.run(os.path.join(FOLDER, f"bench-{client}"), "--port", str(port), *secure, *arguments,
                         limit_s=60).split()


class EveryClient(unittest.TestCase):
    def each(self):
        for client in rows.built_clients(FOLDER):
            for tls in (False, True):
                with self.subTest(client=client, tls=tls):
                    yield client, tls

    def test_every_client_gets_back_what_it_sends(self):
        for client, tls in self.each():
            for size in (0, 125, 126, 16 << 10):
                words = run(client, "--job", "echo", "--size", str(size), "--tunnels", "3", "--messages", "30", tls=tls)
                self.assertEqual(words[0], "messages")
                self.assertGreaterEqual(int(words[1]), 30)

    def test_every_client_takes_a_flood_of_small_and_of_large_messages(self):
        for client, tls in self.each():
            for size in (16, 1 << 20):
                words = run(client, "--job", "flood", "--size", str(size), "--messages", "20", tls=tls)
                self.assertGreaterEqual(int(words[1]), 20)

    def test_every_client_sets_up_and_closes_one_tunnel_after_the_other(self):
        for client, tls in self.each():
            self.assertEqual(int(run(client, "--job", "setup", "--messages", "5", tls=tls)[1]), 5)

    def test_every_client_says_what_a_tunnel_takes_of_the_heap(self):
        for client, tls in self.each():
            words = run(client, "--job", "heap", "--tunnels", "40", tls=tls)
            self.assertEqual(words[0], "heap")
            self.assertGreaterEqual(int(words[1]), 0)

    def test_a_run_by_time_says_how_long_it_took(self):
        words = run("raw", "--job", "echo", "--seconds", "0.05", tls=False)
        self.assertEqual(words[2], "seconds")
        self.assertGreaterEqual(float(words[3]), 0.05)

    def test_the_library_holds_128_tunnels(self):
        words = run("library", "--job", "echo", "--tunnels", "128", "--messages", "512", tls=False)
        self.assertGreaterEqual(int(words[1]), 512)

    def test_the_library_runs_with_its_own_masks_and_with_the_log_at_its_default(self):
        for setting in (("--masks", "library"), ("--log", "default")):
            words = run("library", "--job", "echo", "--messages", "30", *setting, tls=True)
            self.assertGreaterEqual(int(words[1]), 30)


if __name__ == "__main__":
    with processes.load_server(FOLDER) as (_, PORTS):
        unittest.main()
