"""The cases, in groups: the cases of one group run in their order, groups side by side."""

import http.client
import os
import ssl
import tempfile
import time
from collections import namedtuple

from capture import Capture, expect_in_order, read_capture
from fixture import (ACCEPT_WRONG, LOST, NO_101, NO_NAME, NO_REGISTRATION, REFUSED, UP, close_by_module, exchange,
                  expect_refusal, tunnel_up)
from processes import PATIENCE, TOKEN, Failure, Process, Relay, free_port, wait_until_served
from servers import PLATFORMS, PYTHON, Direct, wait_for_workers

LARGE = 1 << 20
BURST = 40  # requests of one TLS record
IDLE = 6  # seconds, in place of the hour of the configurations


# ------------------------------------------------------------------------------------------ all that a tunnel does
def whole(fixture, server, fragments):
    relay = fixture.own(Relay(server.port))
    server.start("1.3")
    with fixture.case("TLS 1.3, upgrade, registration"):
        module = fixture.module(relay.port)
        check_tls(server, tunnel_up(server.platform, module), "TLSv1.3")
    exchanges(fixture, server.platform, relay, fragments)
    with fixture.case("close by the platform; the module comes back"):
        server.platform.order("close", code=1000, reason="enough")
        if server.platform.event("ended")["code"] != 1000:
            raise Failure("the close was not answered with its status")
        module.wait_for("close received: status 1000")
        module.wait_for("tunnel closed")
        tunnel_up(server.platform, module)
    with fixture.case("restart of the server while up; TLS 1.2"):
        server.stop()
        module.wait_for(LOST, "tunnel closed")
        server.start("1.2")
        check_tls(server, tunnel_up(server.platform, module), "TLSv1.2")
        exchange(server.platform, "after the restart")
    with fixture.case("close by the module"):
        close_by_module(server.platform, module)
    server.stop()


def check_tls(server, opened, version):
    if isinstance(server, Direct) and opened["tls"] != version:
        raise Failure(f"the session is {opened['tls']}, expected {version}")


def exchanges(fixture, platform, relay, fragments):
    with fixture.case("text"):
        exchange(platform, "hello")
    with fixture.case("binary"):
        platform.order("binary", text="bytes")
        platform.message("answer: bytes")
    with fixture.case("ping"):
        platform.order("ping", text="are you there")
        if platform.event("pong")["text"] != "are you there":
            raise Failure("the pong has another body")
    if fragments:
        with fixture.case("a message in fragments"):
            platform.order("fragments", texts=["length:30000\n", "x" * 10000, "y" * 20000])
            platform.message("answer: 30000 bytes")
    with fixture.case("a frame of 1 MiB, answered in fragments"):
        exchange(platform, "z" * LARGE)
    with fixture.case(f"{BURST} frames in one TLS record"):
        relay.records = 0
        texts = [f"request {i}" for i in range(BURST)]
        platform.order("burst", texts=texts)
        for text in texts:
            platform.message(f"answer: {text}")
        if relay.records != 1:
            raise Failure(f"they came in {relay.records} records")


def dialect(fixture, server):
    """Two frames of the library that are not RFC 6455's."""
    server.start()
    with fixture.case("dialect: a frame of 65536 bytes is answered with close status 1009"):
        module = fixture.dialect(server.port, 65536)
        server.platform.event("open")
        server.platform.accept_registration()
        line = module.wait_for("close received", "connection ended", "text received")
        if line != "close received: status 1009":
            raise Failure(line)
        module.stop()
        server.platform.event("ended")
    with fixture.case("dialect: a close without a key is not answered; the platform sees 1006"):
        module = fixture.dialect(server.port, 0)
        server.platform.event("open")
        server.platform.accept_registration()
        module.wait_for("close sent")
        module.finish()
        code = server.platform.event("ended")["code"]
        if code != 1006 or any("received" in line for line in module.lines):
            raise Failure(f"the platform saw {code}, the device '{', '.join(module.lines)}'")


def platform_group(name, fragments=True):
    def run(fixture):
        server = fixture.direct(name)
        whole(fixture, server, fragments)
        dialect(fixture, server)

    return run


def proxy_group(name, site):
    def run(fixture):
        server = fixture.front(name, site)
        whole(fixture, server, fragments=True)
        dialect(fixture, server)

    return run


# ------------------------------------------------------------------------------------------------- what proxies do
def proxy_events(fixture, name, site, idle, down):
    """`idle` is the setting of the idle time and its value in the file, `down` the answer without an upstream."""
    setting, value = idle
    server = fixture.front(name, site, changes=[(f"{setting}{value}", f"{setting}{IDLE}s")])
    server.start()
    with fixture.case(f"idle for longer than {setting.strip()}: the tunnel is lost, and comes back"):
        module = fixture.module(server.port)
        tunnel_up(server.platform, module)
        module.wait_for(LOST)
        tunnel_up(server.platform, module)
    with fixture.case("pings of the platform keep it up"):
        for _ in range(6):
            time.sleep(IDLE / 4)
            server.platform.order("ping", text="")
            server.platform.event("pong")
        module.says_nothing_of(LOST, 0)
    module.stop()
    with fixture.case(f"upstream down, {down}: refused; up again: the module comes back"):
        server.stop_platform()
        expect_status(server, "/tunnel", down)
        module = fixture.module(server.port)
        expect_refusal(module, NO_101)
        server.start_platform()
        tunnel_up(server.platform, module)
    module.stop()
    for answer, path in ((301, "/moved"), (404, "/missing")):
        expect_status(server, path, answer)
        refused(fixture, server, f"{answer}: refused", NO_101, path).stop()
    server.stop()


def expect_status(server, path, wanted):
    """Asks for the path as any client does."""
    unchecked = ssl.create_default_context()
    unchecked.check_hostname = False
    unchecked.verify_mode = ssl.CERT_NONE
    client = http.client.HTTPSConnection("127.0.0.1", server.port, timeout=PATIENCE, context=unchecked)
    client.request("GET", path)
    status = client.getresponse().status
    client.close()
    if status != wanted:
        raise Failure(f"the answer has status {status}, expected {wanted}")


def reload(fixture, name, site):
    server = fixture.front(name, site)
    server.start()
    with fixture.case("reload while up: the old worker keeps the tunnel"):
        module = fixture.module(server.port)
        tunnel_up(server.platform, module)
        server.reload()
        wait_for_workers(server.proxy, 2)  # the old one and the new one
        exchange(server.platform, "after the reload")
        module.says_nothing_of(LOST, 0)
        close_by_module(server.platform, module)
    server.stop()


def refused(fixture, server, fact, reason, path="/tunnel"):
    with fixture.case(fact):
        module = fixture.module(server.port, path)
        expect_refusal(module, reason)
    return module


def nginx(fixture):
    proxy_events(fixture, "nginx", "nginx.conf", ("proxy_read_timeout ", "1h"), 502)
    reload(fixture, "nginx", "nginx.conf")
    server = fixture.front("nginx", "nginx-names.conf")
    server.start()
    refused(fixture, server, "ssl_reject_handshake: the library sends no server name and is refused", NO_NAME)


def haproxy(fixture):
    proxy_events(fixture, "haproxy", "haproxy-http.cfg", ("timeout tunnel  ", "1h"), 503)
    reload(fixture, "haproxy", "haproxy-http.cfg")
    for change, fact, reason in (
            (("option h1-case-adjust-bogus-client", ""),
             "without h1-case-adjust Sec-WebSocket-Accept is respelled: refused", ACCEPT_WRONG),
            ((" ssl crt", " ssl strict-sni crt"),
             "strict-sni: the library sends no server name and is refused", NO_NAME)):
        server = fixture.front("haproxy", "haproxy-http.cfg", changes=[change])
        server.start()
        refused(fixture, server, fact, reason).stop()
        server.stop()


# ------------------------------------------------------------------------------- what else platforms and proxies do
def refused_group(make_server, fact, reason):
    def run(fixture):
        server = make_server(fixture)
        server.start()
        refused(fixture, server, fact, reason)

    return run


def accepted_group(make_server, fact):
    def run(fixture):
        server = make_server(fixture)
        server.start()
        with fixture.case(fact):
            module = fixture.module(server.port)
            tunnel_up(server.platform, module)
            exchange(server.platform, "hello")
            module.stop()

    return run


def with_and_without_reason(fixture):
    """haproxy in front of a platform whose status line has no reason."""
    server = fixture.front("haproxy", "haproxy-http.cfg", "hypercorn")
    server.start()
    with fixture.case("with set-status: up"):
        module = fixture.module(server.port)
        tunnel_up(server.platform, module)
        exchange(server.platform, "hello")
        module.stop()
    server.stop()
    server = fixture.front("haproxy", "haproxy-http.cfg", "hypercorn", [("http-response set-status", "#")])
    server.start()
    refused(fixture, server, f"without set-status, {NO_REASON}", NO_101)


def direct(name):
    return lambda fixture: fixture.direct(name)


def behind(name, site, upstream="ws"):
    return lambda fixture: fixture.front(name, site, upstream)


def websocketd(fixture):
    port = free_port()
    script = os.path.join(PLATFORMS, "websocketd_tunnel.py")
    server = fixture.own(Process("websocketd", [
        "websocketd", "--address=127.0.0.1", f"--port={port}", "--ssl", f"--sslcert={fixture.certificate}",
        f"--sslkey={fixture.certificate}", PYTHON, script]))
    wait_until_served(port, server)
    with fixture.case("a line of 4082 bytes is one frame"):
        module = fixture.module(port)
        module.wait_for(UP)
        module.wait_for("request 1 received: sss")
        module.wait_for("answer 1 sent")
    with fixture.case("a longer one comes in fragments, without a length line: the module closes with 1002"):
        module.wait_for("close sent: status 1002")


def early_frames(fixture):
    server = fixture.direct("websockets")
    server.start()
    with fixture.case("a greeting before the registration: refused"):
        module = fixture.module(server.port)
        server.platform.event("open")
        server.platform.order("text", text="welcome")
        expect_refusal(module, NO_REGISTRATION)
    with fixture.case("a ping before the registration's answer: refused"):
        server.platform.event("open")
        server.platform.event("message")
        server.platform.order("ping", text="")
        expect_refusal(module, NO_REGISTRATION)


def chunked_answer(fixture):
    """nginx sends the head and the chunk of a short answer together."""
    server = fixture.front("nginx", "nginx.conf", "aiohttp", changes=[
        ("return 404;", "proxy_pass http://127.0.0.1:8080; proxy_http_version 1.1;")])
    server.start()
    with fixture.case("404 with a line end inside a chunk: the set-up stands still"):
        module = fixture.module(server.port, "/missing")
        module.wait_for("upgrade: request sent")
        module.says_nothing_of(REFUSED, 1)
    with fixture.case("until the connection ends"):
        server.stop()
        module.wait_for(REFUSED)


# -------------------------------------------------------------------------------------------------- the packet analyser
def decrypted(version, new_keys):
    """The simulator's key log; `new_keys` is what its fault `rekey` is in this version of TLS."""
    def run(fixture):
        port = free_port()
        folder = tempfile.mkdtemp(dir=fixture.work)
        keys, packets, empty = (os.path.join(folder, name) for name in ("tls.keys", "packets.pcap", "empty.keys"))
        capture = fixture.own(Capture(port, packets))
        platform = fixture.simulator(port, "--tls", version, "--keylog", keys)
        begin = ["GET /tunnel HTTP/1.1", "HTTP/1.1 101 Switching Protocols", '"tokenID":"' + TOKEN,
                 '{"optType":1,"retCode":0}', "answer: with the first keys"]
        end = ["answer: with other keys", "answer: and still"]
        module = fixture.module(capture.port)
        module.wait_for(UP)
        request(platform, "with the first keys")
        with fixture.case(f"TLS {version}: the upgrade, the registration and a text are decrypted by the key log"):
            expect_in_order(read_capture(packets, keys), begin)
        platform.write("fault rekey")
        for text in ("with other keys", "and still"):
            request(platform, text)
        with fixture.case(f"TLS {version}: so are the texts behind a {new_keys}"):
            expect_in_order(read_capture(packets, keys), begin + end)
        with fixture.case(f"TLS {version}: without the key log, none is"):
            open(empty, "w", encoding="ascii").close()
            shown = read_capture(packets, empty)
            expect_in_order(shown, [f"TLSv{version} Record Layer"])
            for text in begin + end:
                if text in shown:
                    raise Failure(f"tshark shows '{text}'")

    return run


def request(platform, text):
    platform.write(f"request {text}")
    platform.wait_for(f"received text: answer: {text}")


# ------------------------------------------------------------------------------------------------------- the groups
Group = namedtuple("Group", "name needs run")  # `needs` names rows of servers.NEEDS

HAPROXY_HTTP = ("haproxy", "haproxy-http.cfg")
NGINX = ("nginx", "nginx.conf")
RESPELLED = "Sec-WebSocket-Accept is respelled: refused"
NO_REASON = "a status line without a reason: refused"

GROUPS = [
    Group("websockets", ["websockets"], platform_group("websockets")),
    Group("aiohttp", ["aiohttp"], platform_group("aiohttp", fragments=False)),  # it sends none
    Group("ws", ["ws"], platform_group("ws")),
    Group("Mojolicious", ["Mojolicious"], platform_group("Mojolicious")),
    Group("nginx", ["nginx", "ws"], proxy_group(*NGINX)),
    Group("nginx events", ["nginx", "ws"], nginx),
    Group("haproxy HTTP", ["haproxy", "ws"], proxy_group(*HAPROXY_HTTP)),
    Group("haproxy TCP", ["haproxy", "ws"], proxy_group("haproxy", "haproxy-tcp.cfg")),
    Group("haproxy events", ["haproxy", "ws"], haproxy),
    Group("caddy", ["caddy", "ws"], refused_group(behind("caddy", "Caddyfile"), RESPELLED, ACCEPT_WRONG)),
    Group("tornado", ["tornado"], refused_group(direct("tornado"), RESPELLED, ACCEPT_WRONG)),
    Group("tornado behind nginx", ["tornado", "nginx"],
          refused_group(behind(*NGINX, "tornado"), RESPELLED, ACCEPT_WRONG)),
    Group("tornado behind haproxy", ["tornado", "haproxy"], accepted_group(behind(*HAPROXY_HTTP, "tornado"), "up")),
    Group("hypercorn", ["hypercorn"], refused_group(direct("hypercorn"), NO_REASON, NO_101)),
    Group("hypercorn behind nginx", ["hypercorn", "nginx"],
          refused_group(behind(*NGINX, "hypercorn"), NO_REASON, NO_101)),
    Group("hypercorn behind haproxy", ["hypercorn", "haproxy"], with_and_without_reason),
    Group("uvicorn with wsproto", ["uvicorn", "wsproto"],
          refused_group(direct("uvicorn with wsproto"), NO_REASON, NO_101)),
    Group("uvicorn behind haproxy", ["uvicorn", "wsproto", "haproxy"],
          accepted_group(behind(*HAPROXY_HTTP, "uvicorn with wsproto"), "up")),
    Group("uvicorn with websockets", ["uvicorn", "websockets"],
          accepted_group(direct("uvicorn with websockets"), "up")),
    Group("websocketd", ["websocketd"], websocketd),
    Group("early frames", ["websockets"], early_frames),
    Group("chunked answer", ["aiohttp", "nginx"], chunked_answer),
    Group("tshark, TLS 1.3", ["tshark"], decrypted("1.3", "KeyUpdate")),
    Group("tshark, TLS 1.2", ["tshark"], decrypted("1.2", "renegotiation")),
]
