"""The kernel's side of a soak run: a network namespace, and a process in it that fills two multicast forwarding caches in
bursts, takes VIFs and links up and down and renames an interface."""

import ctypes
import os
import socket
import struct
import subprocess

from model import ANY, ANY_SOURCE_GROUPS

TABLES = {"default": 253, "red": 100}
CONFIG = '{"vrfs": [{"name": "default"}, {"name": "red", "id": 3, "table": 100}]}\n'
ROUTES = 8000  # about so many there are in a table
SOURCES = [f"10.0.{high}.{low}" for high in range(5) for low in range(1, 51)]
GROUPS = [f"239.1.0.{n}" for n in range(1, 61)]
VIFS = range(8)

# linux/mroute.h
INIT, ADD_VIF, DEL_VIF, ADD_MFC, DEL_MFC, TABLE, ADD_MFC_PROXY, DEL_MFC_PROXY = 200, 202, 203, 204, 205, 209, 210, 211
USE_IFINDEX = 8


def ip(*words):
    subprocess.run(["ip", *words], check=True, capture_output=True, text=True)


def make_namespace(name):
    """Why there can be none, or nothing."""
    if os.geteuid() != 0:
        return "not root"
    try:
        ip("netns", "add", name)
    except (OSError, subprocess.CalledProcessError) as error:
        return (getattr(error, "stderr", "") or str(error)).strip()
    return None


def feed(namespace, rng, pipe):
    """The process: churns until the pipe says "pause", tells then how much it did, and goes on when it hears "go"."""
    with open(f"/run/netns/{namespace}", encoding="utf-8") as file:
        if ctypes.CDLL(None, use_errno=True).setns(file.fileno(), 0) != 0:
            raise OSError(ctypes.get_errno(), "setns")
    for number in VIFS:
        ip("link", "add", f"e{number}", "type", "veth", "peer", "name", f"p{number}")
        ip("link", "set", f"e{number}", "up")
        ip("link", "set", f"p{number}", "up")
    caches = [Cache(table) for table in TABLES.values()]
    for cache in caches:
        while len(cache.routes) < ROUTES:
            cache.add(rng, 1000)
    name, changes = f"e{VIFS[-1]}", 0
    while True:
        if pipe.poll(rng.choice((0.01, 0.05, 0.3))):
            if pipe.recv() == "pause":
                pipe.send({"changes": changes, "routes": sum(len(cache.routes) for cache in caches)})
                pipe.recv()
        cache = rng.choice(caches)
        kind = rng.choices(("routes", "vif", "link", "rename"), (90, 4, 3, 3))[0]
        if kind == "routes":
            size = int(10 ** rng.uniform(0, 3.2))
            changes += cache.remove(rng, size) if rng.random() < 0.5 * len(cache.routes) / ROUTES else cache.add(rng, size)
            continue
        changes += 1
        if kind == "vif":
            number = rng.choice(VIFS[1:-1])
            cache.vif(number, number not in cache.vifs)
        elif kind == "link":
            ip("link", "set", f"e{rng.choice(VIFS[1:-1])}", rng.choice(("up", "down")))
        else:
            new = f"e{VIFS[-1]}" if name.startswith("x") else f"x{rng.randint(1, 99)}"
            ip("link", "set", name, "down")
            ip("link", "set", name, "name", new)
            ip("link", "set", new, "up")
            name = new


class Cache:
    """One table of the kernel's multicast forwarding cache, and what is in it."""

    def __init__(self, table):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_IGMP)
        self.socket.setsockopt(socket.IPPROTO_IP, TABLE, struct.pack("I", table))
        self.socket.setsockopt(socket.IPPROTO_IP, INIT, struct.pack("i", 1))
        self.routes = {}  # (source, group): VIF it comes in by
        self.vifs = set()
        for number in VIFS:
            self.vif(number, True)

    def vif(self, number, up):
        index = socket.if_nametoindex(f"e{number}") if up else 0
        control = struct.pack("HBBIi4x", number, USE_IFINDEX, 1, 0, index)
        self.socket.setsockopt(socket.IPPROTO_IP, ADD_VIF if up else DEL_VIF, control)
        (self.vifs.add if up else self.vifs.remove)(number)

    def route(self, option, flow, parent, oifs=()):
        ttls = bytes(1 if number in oifs else 0 for number in range(32))
        control = struct.pack("4s4sH32sIIIi", *map(socket.inet_aton, flow), parent, ttls, 0, 0, 0, 0)
        self.socket.setsockopt(socket.IPPROTO_IP, option, control)

    def add(self, rng, count):
        for _ in range(count):
            any_source = rng.random() < 0.01
            flow = (ANY, rng.choice(ANY_SOURCE_GROUPS)) if any_source else (rng.choice(SOURCES), rng.choice(GROUPS))
            parent = self.routes.get(flow, rng.choice(VIFS[:2]))
            self.route(ADD_MFC_PROXY if any_source else ADD_MFC, flow, parent, rng.sample(VIFS, rng.randint(0, 4)))
            self.routes[flow] = parent
        return count

    def remove(self, rng, count):
        for flow in rng.sample(list(self.routes), min(count, len(self.routes))):
            self.route(DEL_MFC_PROXY if flow[0] == ANY else DEL_MFC, flow, self.routes.pop(flow))
        return count
