#!/usr/bin/env python3
"""A handler for `cloudtunnel-module --exec`: it answers each message with the message, and writes each state of a tunnel
and each answer that was refused to standard error."""
import json
import sys


def answer(event):
    """Returns the request that answers an event, None if there is none."""
    if event["event"] == "state":
        print(f"{event['model']}: {event['state']} ({event['cause']}) {event['detail']}", file=sys.stderr, flush=True)
    if event["event"] == "refused":
        print(f"{event['model']}: not answered: {event['result']}", file=sys.stderr, flush=True)
    if event["event"] != "message":
        return None
    if "text" in event:
        return {"send": event["text"], "model": event["model"]}
    return {"send_base64": event["base64"], "model": event["model"]}


for line in sys.stdin:
    request = answer(json.loads(line))
    if request:
        print(json.dumps(request), flush=True)
