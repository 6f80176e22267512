"""What websocketd starts for each tunnel: it reads messages as lines and sends lines as messages."""

import sys


def send(line):
    print(line, flush=True)


sys.stdin.readline()  # the registration
send('{"optType":1,"retCode":0}')
send("s" * 4082)
sys.stdin.readline()  # the answer
send("l" * 4083)
sys.stdin.read()
