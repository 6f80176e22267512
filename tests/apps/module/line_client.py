"""A program on the socket of cloudtunnel-module: line_client.py SOCKET watch|answer|lazy|say [TEXT LINE...]

watch prints the lines that come; answer does so too, and answers each message; lazy never reads, and prints when it is
disconnected; say writes lines and prints those that come back, up to the first that holds the text."""

import json
import select
import socket
import sys

LIFE_S = 60

path, what, last, lines = sys.argv[1], sys.argv[2], sys.argv[3:4], sys.argv[4:]
connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
connection.settimeout(LIFE_S)
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
        if last and last[0] in line.decode():
            sys.exit()
    print("disconnected", flush=True)
except TimeoutError:
    pass
