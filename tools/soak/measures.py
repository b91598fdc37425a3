"""The processes that measure: an honest client's waits, the machine's own delays, and a watcher that keeps the answers."""

import contextlib
import json
import os
import socket
import time

from rpc import Connection, Gone, key_of, value_of

HONEST_ID = 50  # of the VRF in which the honest client writes
HONEST_KEY = {"intf": "Honest", "vrfId": HONEST_ID, "vlanId": 1, "sourceIp": "10.0.0.1", "groupIp": "239.3.0.1", "type": 0}


def urgent(level=-10):
    if os.geteuid() == 0:
        os.nice(level)


def serve_samples(pipe, samples):
    """Hands the samples since the last time to who asks; false when it is over."""
    if not pipe.poll():
        return True
    if pipe.recv() == "end":
        return False
    pipe.send({name: list(values) for name, values in samples.items()})
    for values in samples.values():
        values.clear()
    return True


def honest(path, rng, pipe):
    """Asks small questions, a few milliseconds apart, and takes the time until each is answered."""
    urgent()
    samples = {"waits": [], "dropped": []}
    connection, instance = None, None
    while serve_samples(pipe, samples):
        try:
            if connection is None:
                connection = honest_connection(path)
                before, instance = instance, connection.call("status")["instance"]
                if before == instance:
                    samples["dropped"].append(instance)
            question = rng.choices((get_one, set_one, follow_one), (70, 29, 1))[0]
            begin = time.perf_counter()
            samples["waits"].append((begin, question(connection, rng)))
            time.sleep(rng.uniform(0.002, 0.005))
        except Gone:
            connection = None
            time.sleep(0.01)


def honest_connection(path):
    connection = Connection(path)
    connection.call("command", line=f"vrf honest id {HONEST_ID} multicast on")
    connection.call("set", path="api/mroute/req", attribute="mrouteReq", key=HONEST_KEY)
    return connection


def get_one(connection, _):
    start = time.perf_counter()
    connection.call("get", path="api/mroute/resp", attribute="mrouteResp", key=HONEST_KEY)
    return time.perf_counter() - start


def route(rng):
    oifs = " ".join(f"Ethernet{n}" for n in rng.sample(range(1, 49), 3))
    return {"line": f"route honest static 10.0.0.1/32 239.3.0.1/32 oifs {oifs} {rng.choice(('A', 'B'))}"}


def set_one(connection, rng):
    start = time.perf_counter()
    connection.call("command", **route(rng))
    return time.perf_counter() - start


def follow_one(connection, rng):
    """From a change to the notification of its answer, on a watch that begins where it is now."""
    status = connection.call("status")
    since = {"instance": status["instance"], "seq": status["counters"]["answerSeq"]}
    connection.call("watch", since=since)
    connection.call("command", line="no route honest static 10.0.0.1/32 239.3.0.1/32")
    connection.call("command", **route(rng))
    start = time.perf_counter()
    number = connection.send("command", line="route honest static 10.0.0.1/32 239.3.0.1/32 oifs Told")
    while not (b'"Told"' in (line := connection.line()) and b'"changed"' in line and b'"seq"' in line):
        if line.startswith(b'{"jsonrpc":"2.0","id":') and json.loads(line).get("id") == number:
            number = None
    wait = time.perf_counter() - start
    if number is not None:
        connection.answer(number)
    connection.call("unwatch")
    return wait


def machine(_path, _rng, pipe):
    """How late the machine wakes a process that slept for 2 ms, and how long a process of the agent's priority takes to
    echo a byte."""
    near, far = socket.socketpair()
    if os.fork() == 0:  # it ends with the other end
        near.close()
        urgent(-5)
        with contextlib.suppress(OSError):
            while byte := far.recv(1):
                far.send(byte)
        os._exit(0)
    far.close()
    urgent()
    samples = {"late": [], "echo": []}
    while serve_samples(pipe, samples):
        start = time.perf_counter()
        time.sleep(0.002)
        woken = time.perf_counter()
        near.send(b".")
        near.recv(1)
        samples["late"].append(woken - start - 0.002)
        samples["echo"].append(time.perf_counter() - woken)


class Watcher:
    """Keeps the answers by what it is told, comes back with `since`, and tells its copy when asked."""

    def __init__(self, path, rng, pipe):
        self.path, self.rng, self.pipe = path, rng, pipe
        self.connection = None
        self.instance, self.seq = None, 0
        self.answers = {}
        self.told = None  # keys told since a snapshot began that has not ended
        self.counts = {"told": 0, "resumed": 0, "lost": 0, "gaps": 0, "dropped": 0}
        self.wanted = None  # (instance, seq) of the copy that is asked for

    def run(self):
        until = 0
        while True:
            try:
                if self.connection is None or time.monotonic() > until and self.told is None:
                    self.come()
                    until = time.monotonic() + self.rng.uniform(1, 10)
                self.follow()
            except Gone:
                self.connection = None
                time.sleep(0.02)
            if not self.serve():
                return

    def come(self):
        was_dropped = self.connection is None
        if self.connection:
            self.connection.close()
        self.connection = Connection(self.path)
        since = {"since": {"instance": self.instance, "seq": self.seq}} if self.instance and self.told is None else {}
        result = self.connection.call("watch", **since)
        self.counts["dropped"] += was_dropped and result["instance"] == self.instance
        if "snapshot" in result:
            self.counts["lost"] += result.get("lost", False)
            self.instance, self.told = result["instance"], set()
            self.page(result["seq"], result["snapshot"], result.get("more", False))
        else:
            self.counts["resumed"] += 1
            self.counts["gaps"] += result["seq"] != self.seq

    def follow(self):
        """Hears what there is for some milliseconds."""
        end = time.monotonic() + 0.05
        self.connection.socket.settimeout(0.05)
        try:
            while time.monotonic() < end:
                self.hear(json.loads(self.connection.line()))
        except socket.timeout:
            pass

    def hear(self, message):
        heard = message["params"]
        if message["method"] == "changed":
            self.counts["gaps"] += heard["seq"] != self.seq + 1
            self.seq = heard["seq"]
            self.put(heard)
        else:
            if heard.get("lost"):
                self.counts["lost"] += 1
                self.told = set()
            self.page(heard["seq"], heard["answers"], heard["more"])

    def page(self, seq, answers, more):
        self.seq = seq
        for answer in answers:
            self.put(answer)
        if not more:
            self.answers = {key: value for key, value in self.answers.items() if key in self.told}
            self.told = None

    def put(self, answer):
        key = key_of(answer["attribute"], answer["key"])
        self.counts["told"] += 1
        self.answers[key] = value_of(answer["value"])
        if self.told is not None:
            self.told.add(key)

    def serve(self):
        """Takes a question of the pipe and answers it as soon as it is told enough; false when it is over."""
        if self.pipe.poll():
            question = self.pipe.recv()
            if question == "end":
                return False
            if question == "counts":
                self.pipe.send(self.counts)
            else:
                self.wanted = question
        if self.wanted and self.wanted[0] == self.instance and self.seq >= self.wanted[1] and self.told is None:
            self.pipe.send((self.wanted, {key: value for key, value in self.answers.items() if value is not None}))
            self.wanted = None
        return True


def watch(path, rng, pipe):
    os.nice(5)
    Watcher(path, rng, pipe).run()
