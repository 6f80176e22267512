"""What the platforms in Python share: the driver's orders on standard input, and what happens on standard output.

Both are JSON, an object a line. A platform reports "listening", then "open", "message", "pong" and "ended" for each
tunnel; a message is text or binary. An order names what to send on the newest tunnel: "text", "binary", "fragments",
"burst", "ping" or "close".
"""

import asyncio
import contextlib
import json
import ssl
import sys

LINE_MAX = 16 << 20  # an order holds a whole message


def arguments():
    """The port on 127.0.0.1 and, unless the platform speaks plain TCP, the certificate and the one TLS version."""
    return int(sys.argv[1]), tls_context(*sys.argv[2:]) if len(sys.argv) > 2 else None


def tls_context(certificate, version):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate)
    context.minimum_version = context.maximum_version = ssl.TLSVersion[f"TLSv{version.replace('.', '_')}"]
    return context


def report(event, **fields):
    print(json.dumps({"event": event, **fields}), flush=True)


def tls_version(transport):
    session = transport.get_extra_info("ssl_object")
    return session.version() if session else "none"


async def orders():
    reader = asyncio.StreamReader(limit=LINE_MAX)
    await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
    while line := await reader.readline():
        yield json.loads(line)


@contextlib.contextmanager
def one_write(transport):
    """What is written to the transport within the block leaves it in one piece: in one TLS record, if it fits."""
    pieces = []
    transport.write = pieces.append
    try:
        yield
    finally:
        del transport.write
    transport.write(b"".join(pieces))
