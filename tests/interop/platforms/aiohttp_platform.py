"""A platform on the Python library aiohttp. Usage: aiohttp_platform.py PORT [CERTIFICATE TLS-VERSION]"""

import asyncio

import driven
from aiohttp import WSMsgType, web

tunnel = None  # the newest
transport = None
reading = None
closing = {}  # the arguments of our close


async def carry_out(order):
    match order["do"]:
        case "text":
            await tunnel.send_str(order["text"])
        case "binary":
            await tunnel.send_bytes(order["text"].encode())
        case "burst":
            with driven.one_write(transport):
                for text in order["texts"]:
                    await tunnel.send_str(text)
        case "ping":
            await tunnel.ping(order["text"].encode())
        case "close":
            closing.update(code=order["code"], message=order["reason"].encode())
            reading.cancel()  # while a task reads, `close` does not wait for the answer


async def read(opened):
    async for message in opened:
        if message.type == WSMsgType.PONG:
            driven.report("pong", text=message.data.decode())
        elif message.type == WSMsgType.TEXT:
            driven.report("message", text=message.data)
        elif message.type == WSMsgType.BINARY:
            driven.report("message", text=message.data.decode())


async def serve(request):
    global tunnel, transport, reading
    tunnel = opened = web.WebSocketResponse(autoping=False)  # a pong is a message then
    transport = request.transport
    await opened.prepare(request)
    driven.report("open", tls=driven.tls_version(transport))
    reading = asyncio.create_task(read(opened))
    await asyncio.wait([reading])
    if closing:
        await opened.close(**closing)
        closing.clear()
    driven.report("ended", code=opened.close_code, reason="")
    return opened


async def missing(request):
    """404 in chunks, with a line end in the text."""
    answer = web.StreamResponse(status=404)
    answer.enable_chunked_encoding()
    await answer.prepare(request)
    await answer.write(b"<html>\r\n<body>no such tunnel</body>\r\n</html>\r\n")
    return answer


async def main():
    port, tls = driven.arguments()
    app = web.Application()
    app.add_routes([web.get("/tunnel", serve), web.get("/missing", missing)])
    runner = web.AppRunner(app)
    await runner.setup()
    await web.TCPSite(runner, "127.0.0.1", port, ssl_context=tls).start()
    driven.report("listening")
    async for order in driven.orders():
        asyncio.create_task(carry_out(order))


asyncio.run(main())
