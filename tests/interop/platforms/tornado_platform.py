"""A platform on the Python library tornado. Usage: tornado_platform.py PORT [CERTIFICATE TLS-VERSION]"""

import asyncio

import driven
import tornado.web
import tornado.websocket

tunnel = None  # the newest


class Tunnel(tornado.websocket.WebSocketHandler):
    def open(self):
        global tunnel
        tunnel = self
        driven.report("open")

    def on_message(self, message):
        driven.report("message", text=message)

    def on_close(self):
        driven.report("ended", code=self.close_code, reason=self.close_reason)


async def main():
    port, tls = driven.arguments()
    tornado.web.Application([("/tunnel", Tunnel)]).listen(port, "127.0.0.1", ssl_options=tls)
    driven.report("listening")
    async for order in driven.orders():
        await tunnel.write_message(order["text"])


asyncio.run(main())
