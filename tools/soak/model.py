"""What the soak run wrote: VRFs, routes and requests, random changes to them as lines of the grammar, and the answers
that follow from them.

Flows are chosen so that no answer may lag behind by the rules (docs/behaviour-notes.md): groups either have routes with
sources, or (*,G) routes and requests for any source alone; one requester asks for a flow's hardware group.
"""

import itertools

ANY = "0.0.0.0"
SOURCES = [f"10.0.0.{n}" for n in range(1, 13)]
GROUPS = [f"239.1.0.{n}" for n in range(1, 16)]  # of routes with a source
ANY_SOURCE_GROUPS = [f"239.2.0.{n}" for n in range(1, 9)]  # of (*,G) routes
KERNEL_VRFS = {"default": 0, "red": 3}
FIRST_ID = 100  # of the VRFs made here; those of others are below
NAMES = [f"v{n}" for n in range(12)]
ROUTES, REQUESTS = 2000, 1500  # about so many there are


def request_line(request):
    service, intf, vrf, vlan, source, group = request
    words = [address if address != ANY else "any" for address in (source, group)]
    return f"request {service} intf {intf} vrf {vrf} vlan {vlan} source {words[0]} group {words[1]}"


def route_words(route):
    vrf, kind, source, group = route
    return f"{vrf} {kind} {source}/{0 if source == ANY else 32} {group}/32"


def route_line(route, oifs):
    return f"route {route_words(route)} oifs {' '.join(oifs) or 'none'}"


class Model:
    """The state written so far. A change is drawn on a copy, which takes its place when the agent has done it."""

    def __init__(self):
        self.vrfs = {}  # name: (identifier, whether multicast is on)
        self.routes = {}  # (VRF, static or sparse, source, group): interfaces
        self.requests = {}  # (service, interface, identifier, VLAN, source, group): None; in the order of posting

    def copy(self):
        twin = Model()
        twin.vrfs, twin.routes, twin.requests = dict(self.vrfs), dict(self.routes), dict(self.requests)
        return twin

    def lines(self, rng):
        """What makes all of it from nothing, requests before VRFs or behind them."""
        parts = [[f"vrf {name} id {number} multicast {'on' if on else 'off'}"
                  for name, (number, on) in self.vrfs.items()],
                 [route_line(*route) for route in self.routes.items()],
                 [request_line(request) for request in self.requests]]
        rng.shuffle(parts)
        return sum(parts, [])

    def ask_again(self):
        """Lines that withdraw and post each mroute request."""
        posted = [request_line(request) for request in self.requests if request[0] == "mroute"]
        return [word + line for line in posted for word in ("no ", "")]

    def draw(self, rng, size):
        """About so many lines of change; they are done here."""
        lines = []
        for _ in range(rng.randint(0, 2)):
            if rng.random() < 0.1:
                lines += self.change_vrf(rng)
        changes = (self.change_route, self.change_request, self.change_group)
        while len(lines) < size:
            lines += rng.choices(changes, (60, 35, 5))[0](rng)
        return lines

    def change_vrf(self, rng):
        name = rng.choice(NAMES)
        if name not in self.vrfs:
            self.vrfs[name] = (self.free_id(rng), True)
            return [f"vrf {name} id {self.vrfs[name][0]} multicast on"]
        number, on = self.vrfs[name]
        what = rng.choice(("switch", "switch", "renumber", "remove"))
        if what == "switch":
            self.vrfs[name] = (number, not on)
            return [f"vrf {name} multicast {'off' if on else 'on'}"]
        lines = [f"vrf {name} multicast off"]
        if what == "renumber":
            self.vrfs[name] = (self.free_id(rng), True)
            return lines + [f"vrf {name} id {self.vrfs[name][0]}", f"vrf {name} multicast on"]
        del self.vrfs[name]
        gone = [route for route in self.routes if route[0] == name]
        for route in gone:
            del self.routes[route]
        return [f"no route {route_words(route)}" for route in gone] + lines + [f"no vrf {name}"]

    def free_id(self, rng):
        taken = {number for number, _ in self.vrfs.values()}
        return rng.choice([n for n in range(FIRST_ID, FIRST_ID + 40) if n not in taken])

    def change_route(self, rng):
        if self.routes and rng.random() < 0.5 * len(self.routes) / ROUTES:
            route = rng.choice(list(self.routes)) if rng.random() < 0.05 else self.recent(rng, self.routes)
            del self.routes[route]
            return [f"no route {route_words(route)}"]
        if not self.vrfs:
            return self.change_vrf(rng)
        vrf = rng.choice(list(self.vrfs))
        flow = (ANY, rng.choice(ANY_SOURCE_GROUPS)) if rng.random() < 0.1 else (rng.choice(SOURCES), rng.choice(GROUPS))
        oifs = [f"Ethernet{n}" for n in rng.sample(range(1, 49), rng.choice((0, 1, 2, 3, 8)))]
        if rng.random() < 0.02:
            oifs.append(f"{vrf}.{rng.randint(1, 250)}")
        route = (vrf, rng.choice(("static", "sparse")), *flow)
        self.routes.pop(route, None)
        self.routes[route] = oifs
        return [route_line(route, oifs)]

    @staticmethod
    def recent(rng, entries):
        """One of those put in last, found without looking at all of them."""
        for number, entry in enumerate(reversed(entries)):
            if rng.random() < 0.02 or number == 200:
                return entry
        return entry

    def change_request(self, rng):
        if self.requests and rng.random() < 0.5 * len(self.requests) / REQUESTS:
            request = next(iter(self.requests)) if rng.random() < 0.5 else self.recent(rng, self.requests)
            del self.requests[request]
            return ["no " + request_line(request)]
        numbers = [number for number, _ in self.vrfs.values()] + list(KERNEL_VRFS.values()) + [FIRST_ID + 39]
        source, group, number = rng.choice(SOURCES), rng.choice(GROUPS), rng.choice(numbers)
        if rng.random() < 0.2:
            request = ("mgroup", "Nat", number, 1 + number % 3, source, group)
        else:
            flows = ((source, group), (ANY, group), (ANY, rng.choice(ANY_SOURCE_GROUPS)), (source, ANY))
            flow = rng.choices(flows, (85, 5, 5, 5))[0]
            request = ("mroute", f"Nat{rng.randint(1, 4)}", number, rng.randint(1, 4), *flow)
        self.requests.setdefault(request)
        return [request_line(request)]

    def change_group(self, rng):
        """Says what the hardware allocated, for a flow that is asked for."""
        asked = [request for request in itertools.islice(reversed(self.requests), 50) if request[0] == "mgroup"]
        if not asked:
            return self.change_request(rng)
        _, _, number, vlan, source, group = rng.choice(asked)
        return [f"group {number} {source} {group} vlan {vlan} id {rng.randint(1, 9999)}"]

    def expected(self):
        """The mroute answers that are not empty, of the VRFs made here."""
        oifs = {}
        for (vrf, _, source, group), names in self.routes.items():
            number, on = self.vrfs[vrf]
            if on:
                for flow in {(source, group), (ANY, group), (source, ANY)}:
                    oifs.setdefault((number, *flow), set()).update(names)
        return {request: frozenset(found) for request in self.requests
                if request[0] == "mroute" and (found := oifs.get((request[2], *request[4:])))}
