"""A platform on an ASGI server.

Usage: asgi_platform.py hypercorn|uvicorn wsproto|websockets PORT [CERTIFICATE TLS-VERSION], of which the version is left
to the server.
"""

import asyncio
import contextlib
import sys

import driven

send_text = None  # on the newest tunnel


async def platform(scope, receive, send):
    global send_text
    await receive()
    await send({"type": "websocket.accept"})
    send_text = lambda text: send({"type": "websocket.send", "text": text})
    driven.report("open")
    while (event := await receive())["type"] == "websocket.receive":
        driven.report("message", text=event["text"])
    driven.report("ended", code=event["code"])


async def serve_hypercorn(port, certificate):
    import hypercorn.asyncio
    import hypercorn.config

    config = hypercorn.config.Config()
    config.bind = [f"127.0.0.1:{port}"]
    config.certfile = config.keyfile = certificate
    await hypercorn.asyncio.serve(platform, config)


async def serve_uvicorn(protocol, port, certificate):
    import uvicorn

    config = uvicorn.Config(platform, port=port, ws=protocol, ssl_certfile=certificate, ssl_keyfile=certificate,
                            lifespan="off", log_level="error")
    await uvicorn.Server(config).serve()


async def wait_until_served(port):
    while True:
        with contextlib.suppress(ConnectionRefusedError):
            (await asyncio.open_connection("127.0.0.1", port))[1].close()
            return
        await asyncio.sleep(0.02)


async def main():
    server, protocol, port, certificate = sys.argv[1], sys.argv[2], int(sys.argv[3]), [*sys.argv[4:], None][0]
    if server == "hypercorn":
        task = asyncio.create_task(serve_hypercorn(port, certificate))
    else:
        task = asyncio.create_task(serve_uvicorn(protocol, port, certificate))
    await wait_until_served(port)
    driven.report("listening")
    async for order in driven.orders():
        await send_text(order["text"])
    task.cancel()


asyncio.run(main())
