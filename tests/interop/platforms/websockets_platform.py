"""A platform on the Python library websockets. Usage: websockets_platform.py PORT [CERTIFICATE TLS-VERSION]"""

import asyncio

import driven
import websockets

tunnel = None  # the newest


async def carry_out(order):
    match order["do"]:
        case "text":
            await tunnel.send(order["text"])
        case "binary":
            await tunnel.send(order["text"].encode())
        case "fragments":
            await tunnel.send(order["texts"])
        case "burst":
            with driven.one_write(tunnel.transport):
                for text in order["texts"]:
                    await tunnel.send(text)
        case "ping":
            await (await tunnel.ping(order["text"]))
            driven.report("pong", text=order["text"])
        case "close":
            await tunnel.close(order["code"], order["reason"])


async def serve(opened):
    global tunnel
    tunnel = opened
    driven.report("open", tls=driven.tls_version(tunnel.transport))
    try:
        async for message in opened:
            driven.report("message", text=message if isinstance(message, str) else message.decode())
    except websockets.ConnectionClosed:
        pass
    driven.report("ended", code=opened.close_code, reason=opened.close_reason)


async def main():
    port, tls = driven.arguments()
    # An answer of 1 MiB and its first 8 bytes are more than the 1 MiB that websockets takes at first.
    async with websockets.serve(serve, "127.0.0.1", port, ssl=tls, max_size=2 << 20):
        driven.report("listening")
        async for order in driven.orders():
            asyncio.create_task(carry_out(order))


asyncio.run(main())
