"""The control socket as the soak run's programs use it: a call and its answer, pages, and all answers as one dict."""

import json
import socket


class Gone(Exception):
    """The agent, or the connection to it, is gone."""


class Refused(Exception):
    """The agent's error object, as text."""


class Connection:
    """One client that asks and waits. `heard(message)` is given the notifications that come meanwhile."""

    def __init__(self, path, heard=None, timeout=30):
        self.heard = heard
        self.buffer = b""
        self.number = 0
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(timeout)
        try:
            self.socket.connect(path)
        except OSError as error:
            self.close()
            raise Gone(str(error)) from error

    def close(self):
        self.socket.close()

    def send(self, method, **params):
        self.number += 1
        self.send_line({"jsonrpc": "2.0", "id": self.number, "method": method, "params": params})
        return self.number

    def send_line(self, message):
        try:
            self.socket.sendall(json.dumps(message).encode() + b"\n")
        except OSError as error:
            raise Gone(str(error)) from error

    def line(self):
        """The next line as it came. A socket.timeout leaves what came so far for the next call."""
        searched = 0
        while (end := self.buffer.find(b"\n", searched)) < 0:
            searched = len(self.buffer)
            try:
                chunk = self.socket.recv(1 << 18)
            except socket.timeout:
                raise
            except OSError as error:
                raise Gone(str(error)) from error
            if not chunk:
                raise Gone("closed by the agent")
            self.buffer += chunk
        line, self.buffer = self.buffer[:end], self.buffer[end + 1:]
        return line

    def answer(self, number):
        """The answer of that number; what is told before it is heard."""
        while True:
            try:
                message = json.loads(self.line())
            except socket.timeout as error:
                raise Gone("no answer for half a minute") from error
            if isinstance(message, list) or message.get("id") == number:
                return message
            if self.heard and "method" in message:
                self.heard(message)

    def call(self, method, **params):
        message = self.answer(self.send(method, **params))
        if "error" in message:
            raise Refused(f"{method}: {json.dumps(message['error'])[:500]}")
        return message["result"]

    def members(self, path, attribute):
        """All members of a collection, page by page."""
        found, after = [], {}
        while page := self.call("get", path=path, attribute=attribute, limit=512, **after):
            found += page
            last = page[-1]
            after = {"after": last["key"] if set(last) == {"key", "value"} else last}
        return found

    def rows(self, what):
        """All rows of a `show`, page by page."""
        found, after = [], {}
        while True:
            page = self.call("show", what=what, **after)
            found += page["rows"]
            if "more" not in page:
                return found
            after = {"after": page["more"]}


FIELDS = ("intf", "vrfId", "vlanId", "sourceIp", "groupIp")
SERVICES = {"mroute": "mrouteResp", "mgroup": "mgroupId"}


def key_of(attribute, key):
    """An answer's key as a tuple that begins with its service."""
    return ("mroute" if attribute == "mrouteResp" else "mgroup", *(key[field] for field in FIELDS))


def value_of(value):
    """An answer's value; no answer and no interface mean the same."""
    return (frozenset(value) or None) if isinstance(value, list) else value


def answers_of(connection):
    """All answers that are not empty, by key."""
    found = {}
    for service, attribute in SERVICES.items():
        for member in connection.members(f"api/{service}/resp", attribute):
            found[key_of(attribute, member["key"])] = value_of(member["value"])
    return {key: value for key, value in found.items() if value is not None}
