"""The servers: the platforms written for this test on libraries of others, and what stands in front of them."""

import importlib.util
import os
import shutil
import signal
import subprocess
import tempfile
import time

from processes import PATIENCE, Failure, Platform, Process, free_port, wait_until_served

HERE = os.path.dirname(os.path.abspath(__file__))
PLATFORMS = os.path.join(HERE, "platforms")
SITES = os.path.join(HERE, "sites")
PYTHON = "/usr/bin/python3"  # the one whose libraries are Debian's
NGINX = "/usr/sbin/nginx"  # not in the path of every user
HAPROXY = "/usr/sbin/haproxy"

NGINX_MAIN = """daemon off;
worker_processes 1;
pid nginx.pid;
error_log stderr;
events {}
http {
    access_log off;
    client_body_temp_path client;
    proxy_temp_path proxy;
    fastcgi_temp_path fastcgi;
    uwsgi_temp_path uwsgi;
    scgi_temp_path scgi;
    include site.conf;
}
"""


def is_there(kind, name):
    """Whether a program, a file or a library of Python or Perl is on this machine."""
    if kind == "program":
        return shutil.which(name) is not None
    if kind == "file":
        return os.path.exists(name)
    language = {"python": [PYTHON, "-c", f"import {name}"], "perl": ["perl", f"-M{name}", "-e", "1"]}[kind]
    return subprocess.run(language, capture_output=True, check=False).returncode == 0


# What serves or reads, by name, and what must be there for it.
NEEDS = {
    "websockets": [("python", "websockets")],
    "aiohttp": [("python", "aiohttp")],
    "ws": [("program", "node"), ("file", "/usr/share/nodejs/ws")],
    "Mojolicious": [("perl", "Mojolicious"), ("perl", "IO::Socket::SSL")],
    "tornado": [("python", "tornado")],
    "hypercorn": [("python", "hypercorn"), ("python", "wsproto")],
    "uvicorn": [("python", "uvicorn")],
    "wsproto": [("python", "wsproto")],
    "nginx": [("file", NGINX)],
    "haproxy": [("file", HAPROXY)],
    "caddy": [("program", "caddy")],
    "websocketd": [("program", "websocketd")],
    "tshark": [("program", "tshark")],
}

# How each platform is started; its port, certificate and TLS version follow.
COMMANDS = {
    "websockets": [PYTHON, "websockets_platform.py"],
    "aiohttp": [PYTHON, "aiohttp_platform.py"],
    "ws": ["node", "ws_platform.js"],
    "Mojolicious": ["perl", "mojolicious_platform.pl"],
    "tornado": [PYTHON, "tornado_platform.py"],
    "hypercorn": [PYTHON, "asgi_platform.py", "hypercorn", "wsproto"],
    "uvicorn with wsproto": [PYTHON, "asgi_platform.py", "uvicorn", "wsproto"],
    "uvicorn with websockets": [PYTHON, "asgi_platform.py", "uvicorn", "websockets"],
}


def missing(names):
    return [name for name in names if not all(is_there(*need) for need in NEEDS[name])]


def start_platform(name, port, *tls):
    """Starts a platform on a port: in plain TCP, or with a certificate and a version of TLS."""
    program, script, *arguments = COMMANDS[name]
    environment = {"NODE_PATH": "/usr/share/nodejs", "PYTHONDONTWRITEBYTECODE": "1"}
    platform = Platform(name, [program, os.path.join(PLATFORMS, script), *arguments, port, *tls], environment)
    platform.event("listening")
    return platform


class Direct:
    """A platform that ends TLS itself."""

    def __init__(self, name, certificate):
        self.name = name
        self.certificate = certificate
        self.port = free_port()
        self.platform = None

    def start(self, version="1.3"):
        self.platform = start_platform(self.name, self.port, self.certificate, version)

    def stop(self):
        if self.platform:
            self.platform.stop()
        self.platform = None


class Front:
    """A proxy that ends TLS in front of a platform. `changes` to its configuration are pairs of texts."""

    def __init__(self, name, site, upstream, work, certificate, changes=()):
        self.name = name
        self.site = site
        self.upstream = upstream
        self.folder = tempfile.mkdtemp(dir=work)
        self.certificate = certificate
        self.changes = list(changes)
        self.port = free_port()
        self.platform_port = free_port()
        self.platform = None
        self.proxy = None

    def write_site(self, *changes):
        with open(os.path.join(SITES, self.site), encoding="utf-8") as file:
            text = file.read()
        places = {
            "nginx": ("listen 443", f"listen 127.0.0.1:{self.port}"),
            "haproxy": ("bind :443", f"bind 127.0.0.1:{self.port}"),
            "caddy": ("https://:443 {", f"https://:{self.port} {{\n\tbind 127.0.0.1"),
        }
        for old, new in [
                *self.changes, *changes, places[self.name], ("/etc/platform/platform.pem", self.certificate),
                ("127.0.0.1:8080", f"127.0.0.1:{self.platform_port}")]:
            if old not in text:
                raise Failure(f"{self.site} does not hold '{old}'")
            text = text.replace(old, new)
        with open(os.path.join(self.folder, "site.conf"), "w", encoding="utf-8") as file:
            file.write(text)

    def only_tls(self, version):
        """The change to the configuration that leaves one version of TLS."""
        if self.name == "nginx":
            return "TLSv1.2 TLSv1.3", f"TLSv{version}"
        return " ssl crt", f" ssl ssl-min-ver TLSv{version} ssl-max-ver TLSv{version} crt"

    def start_platform(self):
        self.platform = start_platform(self.upstream, self.platform_port)

    def stop_platform(self):
        if self.platform:
            self.platform.stop()
        self.platform = None

    def start(self, version=None):
        self.start_platform()
        self.write_site(*([self.only_tls(version)] if version else []))
        if self.name == "nginx":
            with open(os.path.join(self.folder, "nginx.conf"), "w", encoding="utf-8") as file:
                file.write(NGINX_MAIN)
        commands = {
            "nginx": [NGINX, "-p", self.folder, "-c", "nginx.conf", "-e", "stderr"],
            "haproxy": [HAPROXY, "-W", "-db", "-f", f"{self.folder}/site.conf"],
            "caddy": ["caddy", "run", "--adapter", "caddyfile", "--config", f"{self.folder}/site.conf"],
        }
        own_folders = {name: self.folder for name in ("HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME")}
        self.proxy = Process(self.name, commands[self.name], own_folders)
        wait_until_served(self.port, self.proxy)

    def reload(self):
        """Has the proxy read its configuration again: new workers serve, old ones keep their connections."""
        self.proxy.signal(signal.SIGHUP if self.name == "nginx" else signal.SIGUSR2)

    def stop(self):
        if self.proxy:
            self.proxy.stop()
        self.proxy = None
        self.stop_platform()


def worker_count(proxy):
    """The children of the proxy's first process."""
    with open(f"/proc/{proxy.process.pid}/task/{proxy.process.pid}/children", encoding="ascii") as file:
        return len(file.read().split())


def wait_for_workers(proxy, wanted):
    end = time.monotonic() + PATIENCE
    while worker_count(proxy) != wanted:
        if time.monotonic() > end:
            raise Failure(f"{proxy.name} has {worker_count(proxy)} workers, expected {wanted}")
        time.sleep(0.05)
