"""What passes a relay, as a packet analyser shows it."""

import socket
import struct
import subprocess
import threading
import time

from processes import PATIENCE, Failure, Relay, shortened


class Capture(Relay):
    """A relay that writes what it passes into a file of packets. It makes their IP and TCP headers itself, so it needs
    no right to listen on the network; in the file, the server has the port of HTTPS."""

    HTTPS = 443
    MAGIC, VERSION, IPV4 = 0xA1B2C3D4, (2, 4), 228  # of a pcap file with packets that begin with an IPv4 header
    LARGEST = 16384  # bytes of data in a packet
    ADDRESS = socket.inet_aton("127.0.0.1")
    TIME_TO_LIVE = 64
    HEADER = 20  # bytes, of IPv4 and of TCP
    PSH_ACK = 0x18

    def __init__(self, target, path):
        self.lock = threading.Lock()  # guards the file and the counts of each connection
        self.file = open(path, "wb", buffering=0)
        self.file.write(struct.pack("=IHHiIII", Capture.MAGIC, *Capture.VERSION, 0, 0, 1 << 16, Capture.IPV4))
        super().__init__(target)

    def _observers(self, device):
        ports = [device.getpeername()[1], Capture.HTTPS]  # in the order of the observers
        sent = [0, 0]  # bytes so far

        def observer(end):
            def write(data):
                with self.lock:
                    if self.file.closed:
                        return
                    for at in range(0, len(data), Capture.LARGEST):
                        piece = data[at:at + Capture.LARGEST]
                        self._write_packet(ports[end], ports[1 - end], sent[end], sent[1 - end], piece)
                        sent[end] += len(piece)

            return write

        return observer(0), observer(1)

    def _write_packet(self, source, target, sequence, acknowledged, data):
        size = 2 * Capture.HEADER + len(data)
        words = Capture.HEADER // 4  # the headers' own size is counted in these
        ip = struct.pack(">BBHHHBBH4s4s", 4 << 4 | words, 0, size, 0, 0, Capture.TIME_TO_LIVE, socket.IPPROTO_TCP, 0,
                         Capture.ADDRESS, Capture.ADDRESS)
        tcp = struct.pack(">HHIIBBHHH", source, target, 1 + sequence, 1 + acknowledged, words << 4, Capture.PSH_ACK,
                          0xFFFF, 0, 0)
        seconds, rest = divmod(time.time_ns(), 10**9)
        self.file.write(struct.pack("=IIII", seconds, rest // 1000, size, size) + ip + tcp + data)

    def stop(self):
        super().stop()
        with self.lock:
            self.file.close()


def read_capture(path, keys):
    """What tshark shows of the packets, in full, with the TLS secrets in the file `keys`."""
    done = subprocess.run(["tshark", "-r", path, "-o", f"tls.keylog_file:{keys}", "-V"], capture_output=True, text=True,
                          errors="replace", timeout=PATIENCE, check=False)
    if done.returncode != 0:
        raise Failure(f"tshark ended with status {done.returncode}: {done.stderr.strip()}")
    return done.stdout


def expect_in_order(shown, texts):
    at = 0
    for text in texts:
        found = shown.find(text, at)
        if found < 0:
            raise Failure(f"tshark shows '{shortened(text)}' {'too early' if text in shown else 'nowhere'}")
        at = found + len(text)
