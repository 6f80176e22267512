"""A program on the socket of cloudtunnel-module: line_client.py SOCKET watch|answer|lazy|say LINE...

watch prints the lines that come; answer does so too, and answers each message; lazy never reads, and prints when it is
disconnected; say writes lines and prints those that come back, until nothing more has come for a moment."""

import json
import select
import socket
import sys

LIFE_S = 60
MOMENT_S = 0.5

path, what, lines = sys.argv[1], sys.argv[2], sys.argv[3:]
connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
connection.settimeout(MOMENT_S if what == "say" else LIFE_S)
connection.connect(path)
print("connected", flush=True)
if what == "lazy":
    waiting = select.poll()
    waiting.register(connection, select.POLLHUP)
    if waiting.poll(LIFE_S * 1000):
        print("disconnected", flush=True)
    sys.exit()
for line in lines:
    connection.sendall(line.encode() + b"\n")
stream = connection.makefile("rb")
try:
    for line in stream:
        print(line.decode().rstrip()[:300], flush=True)
        event = json.loads(line)
        if what == "answer" and event["event"] == "message":
            answer = {"send": "answer: " + event["text"], "model": event["model"]}
            connection.sendall(json.dumps(answer).encode() + b"\n")
    print("disconnected", flush=True)
except TimeoutError:
    pass
