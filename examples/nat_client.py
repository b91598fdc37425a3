#!/usr/bin/env python3
"""A NAT feature in thirty lines: asks for a flow's outgoing interfaces and follows the answer as routes change.

usage: nat_client.py SOCKET INTERFACE VRF-ID VLAN SOURCE GROUP
"""
import json
import socket
import sys

path, intf, vrf_id, vlan, source, group = sys.argv[1:7]
key = {"intf": intf, "vrfId": int(vrf_id), "vlanId": int(vlan), "sourceIp": source, "groupIp": group,
       "type": "mrouteRequest"}

connection = socket.socket(socket.AF_UNIX)
connection.connect(path)
lines = connection.makefile("rw", encoding="utf-8")


def call(number, method, **params):
    lines.write(json.dumps({"jsonrpc": "2.0", "id": number, "method": method, "params": params}) + "\n")
    lines.flush()


call(1, "watch")
call(2, "set", path="api/mroute/req", attribute="mrouteReq", key=key)
for line in lines:
    message = json.loads(line)
    if "error" in message:
        sys.exit(message["error"]["message"])
    told = message.get("params")  # a change, or answers as they are
    for change in told.get("answers", [told]) if told else []:
        if change["attribute"] != "mrouteResp" or change["key"] != key:
            continue
        print("no answer" if change["value"] is None else " ".join(change["value"]) or "no interfaces", flush=True)
