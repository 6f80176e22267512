"""service_manager.py SOCKET: prints the notifications of a service, until it is stopping or a minute is over."""

import socket
import sys

manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
manager.settimeout(60)
manager.bind(sys.argv[1])
print("listening", flush=True)
message = ""
while message != "STOPPING=1":
    message = manager.recv(1000).decode()
    print(message, flush=True)
