#!/usr/bin/env python3
"""A handler for `cloudtunnel-module --exec`: it answers each message with the message, and writes each state of a tunnel
to standard error."""
import json
import sys


def answer(event):
    """Returns what is to be done about an event; None for nothing."""
    if event["event"] == "state":
        print(f"{event['model']}: {event['state']} ({event['cause']}) {event['detail']}", file=sys.stderr, flush=True)
    if event["event"] != "message":
        return None
    if "text" in event:
        return {"send": event["text"], "model": event["model"]}
    return {"send_base64": event["base64"], "model": event["model"]}


for line in sys.stdin:
    action = answer(json.loads(line))
    if action:
        print(json.dumps(action), flush=True)
