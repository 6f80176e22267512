"""What the interop run does by itself, without a server.

interop_test.py PAGE SITES: docs/platforms.md, and the folder of the configurations.
"""

import os
import re
import struct
import sys
import tempfile
import unittest
from unittest import mock

import capture
import interop
import processes
import servers
from cases import GROUPS, Group

PAGE, SITES = sys.argv.pop(1), sys.argv.pop(1)


def rows(group, **environment):
    with mock.patch.dict(os.environ, environment):
        return interop.run_group(group, "interop-1", {}, "", "")


class Run(unittest.TestCase):
    def test_cases_of_a_server_that_is_missing_are_left_out_by_its_name_and_fail_in_ci(self):
        group = Group("nginx", ["nginx", "ws"], lambda fixture: self.fail("its cases ran"))
        with mock.patch.object(servers, "is_there", lambda kind, name: name != servers.NGINX):
            self.assertEqual(rows(group, CI=""), [("left out", "all its cases", None, "not on this machine: nginx")])
            self.assertEqual(rows(group, CI="true"), [("FAILED", "all its cases", None, "not on this machine: nginx")])

    def test_a_case_that_fails_is_shown_with_its_reason_and_ends_its_group(self):
        def run(fixture):
            with fixture.case("first"):
                pass
            with fixture.case("second"):
                raise processes.Failure("the reason")
            self.fail("the group went on")

        shown = rows(Group("any", [], run))
        self.assertEqual([row[:2] for row in shown], [("ok", "first"), ("FAILED", "second")])
        self.assertIn("the reason", shown[1][3])

    def test_a_mistake_in_a_case_fails_that_case_and_no_other_group(self):
        def run(fixture):
            with fixture.case("first"):
                raise KeyError("a name")

        self.assertEqual(rows(Group("any", [], run))[0], ("FAILED", "first", None, "KeyError('a name')\n"))

    def test_what_a_group_started_is_stopped_when_a_case_fails(self):
        def run(fixture):
            run.process = fixture.own(processes.Process("sleep", ["sleep", "60"]))
            raise processes.Failure("the reason")

        rows(Group("any", [], run))
        self.assertIsNotNone(run.process.process.poll())

    def test_every_group_needs_servers_that_are_in_the_table(self):
        for group in GROUPS:
            self.assertLessEqual(set(group.needs), set(servers.NEEDS), group.name)

    def test_records_of_data_are_counted_however_the_bytes_are_cut(self):
        stream = bytes([22, 3, 3, 0, 2, 1, 2, 23, 3, 3, 1, 0]) + bytes(256) + bytes([23, 3, 3, 0, 1, 9])
        for size in (1, 2, 5, 7, len(stream)):
            relay = processes.Relay(0)
            waiting = bytearray()
            for at in range(0, len(stream), size):
                waiting += stream[at:at + size]
                relay._count(waiting)
            relay.stop()
            self.assertEqual(relay.records, 2, f"in pieces of {size}")

    def test_a_capture_holds_every_byte_at_its_place_in_its_direction(self):
        device = mock.Mock(getpeername=lambda: ("127.0.0.1", 50000))
        large = bytes(range(256)) * 100
        with tempfile.TemporaryDirectory() as work:
            path = os.path.join(work, "packets")
            relay = capture.Capture(0, path)
            of_device, of_server = relay._observers(device)
            for observer, data in ((of_device, b"hello"), (of_server, large), (of_device, b", again")):
                observer(data)
            relay.stop()
            of_device(b"what is left of a relay that is stopped")
            with open(path, "rb") as file:
                packets = file.read()[24:]
        found = {50000: [b"", 0], 443: [b"", 0]}  # by the port that sends: its bytes, and what it has acknowledged
        while packets:
            size, = struct.unpack("=8xI", packets[:12])
            port, sequence, acknowledged = struct.unpack(">H2xII", packets[36:48])
            self.assertEqual(sequence, 1 + len(found[port][0]))
            self.assertLessEqual(acknowledged, 1 + len(found[50000 if port == 443 else 443][0]))
            found[port] = [found[port][0] + packets[56:16 + size], acknowledged]
            packets = packets[16 + size:]
        self.assertEqual(found, {50000: [b"hello, again", 1 + len(large)], 443: [large, 6]})

    def test_what_is_shown_in_another_order_is_a_failure(self):
        capture.expect_in_order("one two three", ["one", "three"])
        with self.assertRaisesRegex(processes.Failure, "tshark shows 'one' too early"):
            capture.expect_in_order("one two three", ["three", "one"])
        with self.assertRaisesRegex(processes.Failure, "tshark shows 'four' nowhere"):
            capture.expect_in_order("one two three", ["one", "four"])

    def test_a_change_that_a_configuration_does_not_hold_is_an_error(self):
        with tempfile.TemporaryDirectory() as work:
            front = servers.Front("nginx", "nginx.conf", "ws", work, "pem", [("no such line", "")])
            with self.assertRaisesRegex(processes.Failure, "nginx.conf does not hold 'no such line'"):
                front.write_site()


class Page(unittest.TestCase):
    """Each configuration stands in the page, behind a line with its name, as it is tested."""

    def test_the_configurations_of_the_page_are_the_tested_ones(self):
        with open(PAGE, encoding="utf-8") as file:
            shown = dict(re.findall(r"^`tests/interop/sites/([^`]+)`[^\n]*:\n\n```\w*\n(.*?)^```$", file.read(),
                                   re.M | re.S))
        tested = {}
        for name in os.listdir(SITES):
            with open(os.path.join(SITES, name), encoding="utf-8") as file:
                tested[name] = file.read()
        self.assertEqual(shown, tested)


if __name__ == "__main__":
    unittest.main()
