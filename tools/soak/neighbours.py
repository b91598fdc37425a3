"""Bad clients of every kind, some two hundred connections at once, and the process that kills a part of them now and
then. None of them changes an answer."""

import functools
import json
import os
import random
import select
import signal
import socket
import threading
import time

PROCESSES = 4
LINE = 4 << 20  # the most that a line may have


def ask(method, **params):
    return json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": params})


@functools.lru_cache
def batch(*questions, size=LINE):
    """A line that asks these over and over, up to so many bytes."""
    block = ",".join(questions) + ","
    return b"[" + (block * ((size - 3) // len(block)))[:-1].encode() + b"]\n"


EVERYTHING = [ask("show", what=what) for what in ("mroute", "mgroup", "vrfs", "routes", "requests", "groups")] + [
    ask("get", path="api/mroute/resp", attribute="mrouteResp", limit=500), ask("trace", last=1000), ask("schema"),
    ask("status"), ask("kernel")]


def hold(client, rng):
    """Stays, without reading, until the agent closes or some seconds have passed."""
    poll = select.poll()
    poll.register(client, 0)
    poll.poll(rng.uniform(1000, 15000))


def drain(client, most):
    """Reads up to so many bytes."""
    while most > 0 and (chunk := client.recv(1 << 16)):
        most -= len(chunk)


def silent(client, rng):
    hold(client, rng)


def half_a_line(client, rng):
    client.sendall(ask("status")[:rng.randint(1, 40)].encode())
    hold(client, rng)


def endless_line(client, rng):
    for _ in range(rng.randint(1, 3)):
        client.sendall(b"x" * LINE)
    hold(client, rng)


def never_reads(client, rng):
    question = rng.choice(EVERYTHING)
    client.sendall(batch(question, size=rng.choice((len(question) * 2000, LINE))))
    hold(client, rng)


def asks_much_and_reads(client, rng):
    client.sendall(batch(*EVERYTHING, size=rng.choice((1 << 12, 1 << 16, LINE))))
    drain(client, rng.choice((1 << 16, 16 << 20, 1 << 30)))


def pages(client, rng):
    for _ in range(rng.randint(1, 300)):
        client.sendall(rng.choice(EVERYTHING).encode() + b"\n")
        drain(client, 1)


def ones(client, rng):
    client.sendall(batch("1"))
    if rng.random() < 0.5:
        drain(client, 1 << 30)
    hold(client, rng)


def byte_by_byte(client, rng):
    for byte in (rng.choice(EVERYTHING) + "\n").encode():
        client.sendall(bytes([byte]))
        time.sleep(0.01)
    drain(client, 1)


def brackets(client, rng):
    client.sendall(rng.choice((b"[", b'{"a":', b'[{"a":[')) * rng.choice((10, 5000, 600000)) + b"\n")
    drain(client, 1)


def no_json(client, rng):
    for _ in range(20):
        line = bytearray(ask("get", path="api/mroute/resp").encode())
        for _ in range(rng.randint(1, 8)):
            line[rng.randrange(len(line))] = rng.randrange(256)
        client.sendall(bytes(line) + b"\n")
    drain(client, 1)
    client.sendall(rng.randbytes(rng.choice((100, 100000))) + b"\n")
    hold(client, rng)


def vanishes(client, rng):
    client.sendall(batch(*EVERYTHING, size=1 << 14)[:rng.choice((0, 100, 1 << 14))])
    time.sleep(rng.uniform(0, 0.05))


def deaf_watcher(client, rng):
    client.sendall(ask("watch", text=rng.random() < 0.5).encode() + b"\n")
    hold(client, rng)


def refused(client, rng):
    worst = ask("set", path="api/mroute/req", attribute="mrouteReq", key={"intf": f"bad{rng.random()}", "vlanId": 0})
    client.sendall(batch(worst, ask("del", path="x", attribute="y", key=1), size=rng.choice((1 << 10, 1 << 20))))
    drain(client, 1 << 30)


def dry_runs(client, rng):
    client.sendall((ask("apply", lines=[f"request mroute intf a vrf 0 vlan 1 source any group 239.9.0.{n}"
                                        for n in range(1, 100)], dryRun=True) + "\n" +
                    ask("kernel", verify=True) + "\n").encode())
    drain(client, 1)
    time.sleep(rng.uniform(0.5, 3))


# How many of each there are in a process. Few are hungry: what the agent has to do, it does for those who ask in turn, so
# that each of fifty hungry ones, and whoever makes changes, would get a fiftieth of its time.
KINDS = {silent: 14, half_a_line: 12, endless_line: 6, never_reads: 8, deaf_watcher: 6, byte_by_byte: 5, no_json: 3,
         vanishes: 3, brackets: 1, asks_much_and_reads: 1, pages: 1, ones: 1, refused: 1, dry_runs: 1}


def behave(kind, path, rng):
    """One connection after the other of that kind, for good; a second or so apart where they are short."""
    while True:
        begin = time.monotonic()
        try:
            with socket.socket(socket.AF_UNIX) as client:
                client.settimeout(15)
                client.connect(path)
                kind(client, rng)
            if time.monotonic() - begin < 2:
                time.sleep(rng.uniform(0.3, 2))
        except OSError:  # most often because the agent was killed
            time.sleep(rng.uniform(0.01, 0.1) if time.monotonic() - begin > 2 else rng.uniform(0.1, 1))


def crowd(path, seed, parent):
    """A process of bad clients; it ends with its parent."""
    kinds = [kind for kind, count in KINDS.items() for _ in range(count)]
    for number, kind in enumerate(kinds):
        threading.Thread(target=behave, args=(kind, path, random.Random(f"{seed}/{number}")), daemon=True).start()
    while os.getppid() == parent:
        time.sleep(0.2)
    os._exit(0)


def run(path, seed, pipe):
    """Keeps the processes running until the pipe closes or says something, and kills one of them every few seconds."""
    os.nice(10)
    rng = random.Random(f"{seed}/neighbours")
    me = os.getpid()
    started = 0

    def start():
        nonlocal started
        started += 1
        pid = os.fork()
        if pid == 0:
            crowd(path, f"{seed}/{started}", me)
        return pid

    crowds = [start() for _ in range(PROCESSES)]
    while not pipe.poll(rng.uniform(4, 10)):
        killed = rng.randrange(PROCESSES)
        os.kill(crowds[killed], signal.SIGKILL)
        os.waitpid(crowds[killed], 0)
        crowds[killed] = start()
    for pid in crowds:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
