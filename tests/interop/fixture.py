"""What a group of cases works with, and the steps that many cases are made of."""

import contextlib
import signal
import threading
import time

from processes import TOKEN, Failure, Process
from servers import Direct, Front

LIFE = 300  # seconds that no module and no daemon outlives

MODULE = "the module"

UP = "hand-off: the tunnel is open"
REFUSED = "set-up failed"
LOST = "tunnel lost"

# Why a set-up fails: the end of the module's line about it.
NO_101 = ("handshake rcv not expect http resp status", "the upgrade was refused")
ACCEPT_WRONG = ("Rcv acception error", "does not fit its key")
NO_REGISTRATION = ("Parsing json error", "rcv error opt code", "refused the registration")
NO_NAME = ("unrecognized name", "TLS was refused")


class Fixture:
    """The processes of one group, and the rows of its cases: result, fact, seconds, and what went wrong."""

    daemon_turn = threading.Lock()  # the library looks for its daemon in one place only

    def __init__(self, model, programs, work, certificate):
        self.model = model
        self.programs = programs
        self.work = work
        self.certificate = certificate
        self.rows = []
        self.under_way = "start"
        self.started = []

    @contextlib.contextmanager
    def case(self, fact):
        self.under_way = fact
        begin = time.monotonic()
        yield
        self.rows.append(("ok", fact, time.monotonic() - begin, None))
        self.under_way = f"after: {fact}"

    def own(self, thing):
        """Has it stopped at the end of the group."""
        self.started.append(thing)
        return thing

    def last_words(self):
        """The last lines of the last module, for a case that failed."""
        modules = [thing for thing in self.started if isinstance(thing, Process) and thing.name == MODULE]
        return "\n".join(line for module in modules[-1:] for line in module.lines[-12:])

    def clean_up(self):
        for thing in reversed(self.started):
            thing.stop()

    def direct(self, name):
        return self.own(Direct(name, self.certificate))

    def front(self, name, site, upstream="ws", changes=()):
        return self.own(Front(name, site, upstream, self.work, self.certificate, changes))

    def simulator(self, port, *options):
        """Starts the simulator as the platform; it reads its steps."""
        platform = self.own(Process("the simulator", [
            self.programs["sim"], "--no-daemon", "--port", port, "--token", TOKEN, "--seconds", LIFE, *options]))
        platform.wait_for("listening on")
        return platform

    def with_tunnel_data(self, command, port, path):
        """Starts a module process. Its daemon sends it the address and is gone then: the tunnel does not need it."""
        with Fixture.daemon_turn:
            daemon = self.own(Process("the daemon", [
                self.programs["sim"], "--no-platform", "--port", port, "--path", path, "--models", self.model,
                "--token", TOKEN, "--seconds", LIFE]))
            daemon.wait_for("listening on")
            process = self.own(Process(MODULE, command))
            process.wait_for("tunnel data stored")
            daemon.stop()
        return process

    def module(self, port, path="/tunnel"):
        command = [self.programs["module"], "--model", self.model, "--seconds", LIFE, "--max-message", 2 << 20]
        return self.with_tunnel_data(command, port, path)

    def dialect(self, port, length):
        return self.with_tunnel_data([self.programs["dialect"], self.model, length], port, "/tunnel")


def tunnel_up(platform, module):
    opened = platform.event("open")
    platform.accept_registration()
    module.wait_for(UP)
    return opened


def exchange(platform, text):
    platform.order("text", text=text)
    platform.message(f"answer: {text}")


def close_by_module(platform, module):
    module.signal(signal.SIGTERM)
    code = platform.event("ended")["code"]
    if code != 1000:
        raise Failure(f"the platform saw status {code}, expected 1000")
    status = module.finish()
    if status != 0:
        raise Failure(f"the module ended with status {status}")


def expect_refusal(module, reason):
    line = module.wait_for(REFUSED)
    if not any(text in line for text in reason):
        raise Failure(line)
