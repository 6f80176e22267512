"""What cannot be done is said in one line, with a status that is not 0. refusals_test.py SCRIPTS BENCH."""

import os
import signal
import subprocess
import sys
import tempfile
import unittest

import processes

SCRIPTS, FOLDER = sys.argv.pop(1), sys.argv.pop(1)


def refusal(*command, **options):
    result = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False, **options)
    return result.returncode, result.stderr.strip().splitlines()


class Refusals(unittest.TestCase):
    def refused(self, text, *command, **options):
        status, lines = refusal(*command, **options)
        self.assertNotEqual(status, 0)
        self.assertEqual(len(lines), 1, lines)
        self.assertIn(text, lines[0])

    def test_a_port_in_use_is_named(self):
        with processes.load_server(FOLDER) as (_, ports):
            port = str(ports["plain"])
            self.refused(f"port {port}", os.path.join(FOLDER, "bench-server"), "--plain", port)

    def test_a_server_that_is_not_there_is_said(self):
        self.refused("connect", os.path.join(FOLDER, "bench-raw"), "--port", "1", "--job", "echo", "--messages", "1")

    def test_an_unknown_option_is_named(self):
        self.refused("'--quick'", os.path.join(FOLDER, "bench-floor"), "--quick")

    def test_a_load_without_an_end_is_refused(self):
        self.refused("--seconds or --messages", os.path.join(FOLDER, "bench-raw"), "--port", "1")

    def test_programs_that_are_not_built_are_named(self):
        with tempfile.TemporaryDirectory() as empty:
            self.refused("bench-raw is not built", os.path.join(SCRIPTS, "bench.py"), empty)

    def test_a_row_that_is_not_there_is_said(self):
        self.refused("no row is named like 'nothing'", os.path.join(SCRIPTS, "bench.py"), "build", "--rows", "nothing")

    def test_too_few_descriptors_are_counted(self):
        self.refused("too few descriptors", "sh", "-c", f"ulimit -n 64; exec {SCRIPTS}/bench.py build")

    def test_an_interrupted_bench_leaves_no_process_behind(self):
        with subprocess.Popen([os.path.join(SCRIPTS, "bench.py"), os.path.dirname(FOLDER), "--quick", "--rows", "16 MiB"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as bench:
            children = f"/proc/{bench.pid}/task/{bench.pid}/children"
            started = []

            def both_run():
                with open(children, encoding="ascii") as file:
                    started[:] = file.read().split()
                return len(started) == 2

            processes.wait_until(both_run, 20, "server and client")
            bench.send_signal(signal.SIGTERM)
            self.assertEqual(bench.wait(timeout=20), 128 + signal.SIGTERM)
            self.assertEqual([pid for pid in started if os.path.exists(f"/proc/{pid}")], [])

    def test_a_process_that_was_starting_at_the_interrupt_is_ended(self):
        program = """if True:
            import os, signal, subprocess
            import processes

            class Interrupted(subprocess.Popen):
                def _execute_child(self, *arguments):
                    super()._execute_child(*arguments)
                    print(self.pid, flush=True)
                    os.kill(os.getpid(), signal.SIGTERM)

            subprocess.Popen = Interrupted
            processes.end_on_signals()
            with processes.running("sleep", "60"):
                print("running", flush=True)
        """
        ended = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(ended.returncode, 128 + signal.SIGTERM, ended.stderr)
        pid, *more = ended.stdout.split()
        self.assertEqual(more, [])
        self.assertFalse(os.path.exists(f"/proc/{pid}"))

    def test_a_started_process_takes_the_signals_that_its_parent_takes(self):
        own = signal.pthread_sigmask(signal.SIG_BLOCK, ())
        program = "import signal; print(*map(int, signal.pthread_sigmask(signal.SIG_BLOCK, ())))"
        blocked = processes.run(sys.executable, "-c", program, limit_s=60)
        self.assertEqual(blocked.split(), [str(int(number)) for number in own])


if __name__ == "__main__":
    unittest.main()
