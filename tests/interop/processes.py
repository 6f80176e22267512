"""The processes of a run. Each is in a process group of its own, and ends with the run, also when that is killed."""

import contextlib
import json
import os
import signal
import socket
import subprocess
import threading
import time

PATIENCE = 60  # seconds that anything expected may take on a busy machine
TOKEN = "interop-token"  # that every registration carries
END_TIME = 20  # seconds for a process to end after SIGTERM


class Failure(Exception):
    """What a case shows in place of what it expects."""


def ports_of_nobody():
    """The ports that are free, each once. The kernel gives none of them to a program that takes any port, so each stays
    free until its server listens, and while that is away."""
    with open("/proc/sys/net/ipv4/ip_local_port_range", encoding="ascii") as file:
        first, last = map(int, file.read().split())
    for port in [*range(first - 1, 1023, -1), *range(last + 1, 1 << 16)]:
        try:
            socket.create_server(("127.0.0.1", port)).close()
        except OSError:
            continue
        yield port


PORTS = ports_of_nobody()
PORTS_LOCK = threading.Lock()  # a generator serves one thread at a time


def free_port():
    with PORTS_LOCK:
        return next(PORTS)


class Relay:
    """Passes bytes between the device and a server, and counts the TLS records of data that the server sends."""

    APPLICATION_DATA = 23
    HEADER = 5  # bytes: type, version (2), length (2)

    def __init__(self, target):
        self.target = target
        self.records = 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.open = set()
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):  # the listener's end
            while True:
                device = self.listener.accept()[0]
                try:
                    server = socket.create_connection(("127.0.0.1", self.target))
                except OSError:
                    device.close()
                    continue
                self.open |= {device, server}
                of_device, of_server = self._observers(device)
                threading.Thread(target=self._pass, args=(device, server, of_device), daemon=True).start()
                threading.Thread(target=self._pass, args=(server, device, of_server), daemon=True).start()

    def _observers(self, device):
        """What is called with each piece of a connection's bytes before they pass: the device's, the server's."""
        waiting = bytearray()

        def count(data):
            waiting.extend(data)
            self._count(waiting)

        return lambda data: None, count

    def _pass(self, source, sink, observer):
        with contextlib.suppress(OSError):
            while data := source.recv(1 << 16):
                observer(data)
                sink.sendall(data)
        for end in (source, sink):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)

    def _count(self, records):
        while len(records) >= Relay.HEADER:
            size = Relay.HEADER + int.from_bytes(records[3:5])
            if len(records) < size:
                return
            self.records += records[0] == Relay.APPLICATION_DATA
            del records[:size]

    def stop(self):
        for end in [self.listener, *self.open]:
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
            end.close()


def wait_until_served(port, process):
    """Waits until something accepts connections on the port."""
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end and process.alive():
        with contextlib.suppress(ConnectionRefusedError), socket.create_connection(("127.0.0.1", port), 1):
            return
        time.sleep(0.02)
    raise Failure(f"{process.name} does not listen: {process.last_words()}")


class Process:
    """A started program. What it prints is read line by line; a wait looks behind what the wait before it found."""

    running = set()
    lock = threading.Lock()  # guards `running` and `over`
    over = False  # the run: no process starts any more

    def __init__(self, name, command, environment=None):
        self.name = name
        self.lines = []
        self.seen = 0
        self.changed = threading.Condition()
        with Process.lock:
            if Process.over:
                raise Failure("the run was ended")
            # A group of its own, so that a server's workers end with it.
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "TERM", *map(str, command)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True,
                env={**os.environ, **(environment or {})})
            Process.running.add(self)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.changed.notify_all()

    def alive(self):
        return self.process.poll() is None

    def last_words(self):
        return self.lines[-1] if self.lines else "it printed nothing"

    def wait_for(self, *texts, patience=PATIENCE):
        """Waits for a line that holds one of the texts, and returns it."""
        return self._next(lambda line: any(text in line for text in texts), f"'{' or '.join(texts)}'", patience)

    def _next(self, wanted, what, patience=PATIENCE):
        end = time.monotonic() + patience
        with self.changed:
            at = self.seen
            while True:
                while at < len(self.lines):
                    at += 1
                    if wanted(self.lines[at - 1]):
                        self.seen = at
                        return self.lines[at - 1]
                left = end - time.monotonic()
                if left <= 0 or (not self.reader.is_alive() and at == len(self.lines)):
                    raise Failure(f"{self.name}: {what} is missing; its last line: {self.last_words()}")
                self.changed.wait(min(left, 0.5))

    def says_nothing_of(self, text, seconds):
        """The text is in no line behind what was found last, and in none of the next seconds."""
        time.sleep(seconds)
        with self.changed:
            for line in self.lines[self.seen:]:
                if text in line:
                    raise Failure(f"{self.name}: {line}")

    def write(self, line):
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            raise Failure(f"{self.name} has ended: {self.last_words()}") from None

    def signal(self, number):
        self.process.send_signal(number)

    def finish(self):
        """Waits for the process's own end, and returns its exit status."""
        try:
            return self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            raise Failure(f"{self.name} does not end: {self.last_words()}") from None

    def stop(self):
        """Ends the process: by SIGTERM, and what is left of its group by SIGKILL."""
        if self.alive():
            self.process.terminate()
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(END_TIME)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        self.reader.join(1)
        with Process.lock:
            Process.running.discard(self)

    @staticmethod
    def stop_all():
        with Process.lock:
            Process.over = True
            left = list(Process.running)
        for process in left:
            process.stop()


class Platform(Process):
    """One of the programs in platforms/: it does what it is ordered, and reports what happens."""

    def order(self, do, **fields):
        self.write(json.dumps({"do": do, **fields}))

    def event(self, kind, patience=PATIENCE):
        """Waits for the next report of this kind."""
        def is_wanted(line):
            return line.startswith("{") and json.loads(line)["event"] == kind

        return json.loads(self._next(is_wanted, f"'{kind}'", patience))

    def message(self, text):
        """Waits for the next message, which must be this one."""
        got = self.event("message")["text"]
        if got != text:
            raise Failure(f"the message is '{shortened(got)}', expected '{shortened(text)}'")

    def accept_registration(self):
        registration = json.loads(self.event("message")["text"])
        if registration["optType"] != 1 or registration["tokenID"] != TOKEN:
            raise Failure(f"the registration is {registration}")
        self.order("text", text='{"optType":1,"retCode":0}')


def shortened(text):
    return text if len(text) <= 60 else f"{text[:40]}... ({len(text)} characters)"
