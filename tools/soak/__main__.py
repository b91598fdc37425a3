"""./dev soak: an agent under everything at once, for a while.

Random changes and kernel churn, some two hundred bad clients, and kill -9 twenty times a minute; beside them an honest
client that measures its waits and a watcher that keeps the answers. Every so often all is quiet and compared: answers
told, kept, asked for anew and computed here, tables and kernel. Ends with a table and a verdict: status 1 if anything
was not as it should be. --fault does damage on purpose, to see that the verdict turns.
"""

import argparse
import bisect
import collections
import ctypes
import multiprocessing
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True

import kernel
import measures
import neighbours
from agent import Agent
from compare import compare, mroute_answers
from model import FIRST_ID, NAMES, Model
from rpc import Connection, Gone, Refused

KILLS_A_ROUND = 5  # a round is a quarter of a minute; the kills are in its first half, some before all is written again
CALM_END = 0.1  # of the time, without kills: what the last agent holds is measured
COMPARE_EVERY = 5  # seconds; and after each kill
CHUNK = 3000  # lines of an apply, at most
SEED_LOG = 66000  # changes of answers: more than the agent keeps
RETURN_LIMIT = 1.0  # seconds
WAIT_LIMIT = 0.005  # seconds, beside the machine's own delay
# KiB in the end beyond the start. All that the agent keeps of old changes is full at the start already, so what is left is
# what the kernel's routes and the allocator's gaps take.
MEMORY_LIMIT = 32 << 10
# What is done here in atomic lists, or is atomic by itself and concerns all requests of a VRF.
APPLIES = ("restore", "compare", "all_at_once", "dry_first", "refused", "whole_vrf")
FAULTS = ("stop", "answer", "request", "death", "file")


class Soak:
    """One run: its processes, the state it wrote, and what it counted."""

    def __init__(self, options, folder, namespace):
        self.options, self.namespace = options, namespace
        self.rng = random.Random(f"{options.seed}/changes")
        self.agent = Agent(options.bin, folder, namespace, random.Random(f"{options.seed}/agent"))
        self.model = Model()
        self.connection = None
        self.instance = None
        self.lasting = []  # (begin, end, name) of what was done, one after the other
        self.whole = None  # the name of a change that is atomic and concerns much, if such a one is made
        self.counts = dict.fromkeys(("changes", "refused", "comparisons", "comparisons after a kill", "kernel", "routes"), 0)
        self.differences = []
        self.waits, self.delays, self.dropped = [], {"late": [], "echo": []}, 0
        work = {"honest": measures.honest, "machine": measures.machine, "watcher": measures.watch}
        self.pipes, self.processes = {}, {}
        for name, function in work.items():
            self.fork(name, function, self.agent.path, random.Random(f"{options.seed}/{name}"))
        self.fork("neighbours", neighbours.run, self.agent.path, options.seed)
        if namespace:
            self.fork("kernel", kernel.feed, namespace, random.Random(f"{options.seed}/kernel"))

    def fork(self, name, function, *arguments):
        """A process that begins when it is told to, and ends with this one."""
        self.pipes[name], far = multiprocessing.Pipe()

        def begin():
            signal.signal(signal.SIGINT, signal.SIG_IGN)
            signal.signal(signal.SIGTERM, signal.SIG_DFL)
            ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # when the parent ends
            far.recv()
            function(*arguments, far)

        self.processes[name] = multiprocessing.get_context("fork").Process(target=begin, name=name, daemon=True)
        self.processes[name].start()
        far.close()

    # ---- the course of a run

    def run(self):
        """Runs for the time wanted; the memory at the start and in the end."""
        seconds = self.options.minutes * 60
        self.agent.start()
        self.connect()
        self.fill()
        start = self.agent.memory()
        self.pipes["watcher"].send("go")
        for name in ("honest", "machine", "neighbours"):
            self.pipes[name].send("go")
        begin = time.monotonic()
        end = begin + seconds
        rng = random.Random(f"{self.options.seed}/kills")
        rounds = round(self.options.minutes * 4)
        length = seconds * (1 - CALM_END) / max(rounds, 1)
        self.agent.kills = sorted(begin + (number + rng.uniform(0, 0.5)) * length
                                  for number in range(rounds) for _ in range(KILLS_A_ROUND))
        self.agent.thread.start()
        self.work(begin, end)
        self.pipes["neighbours"].send("end")
        self.processes["neighbours"].join(30)
        self.guarded(self.compare)
        time.sleep(1)
        return start, self.agent.memory()

    def fill(self):
        """The first state; and the log of answers is filled, for the memory at the start to have all that is kept."""
        if self.namespace:
            self.pipes["kernel"].send("go")
            self.pause_kernel()
            self.pipes["kernel"].send("go")
        for number, name in enumerate(NAMES):
            self.model.vrfs[name] = (FIRST_ID + number, True)
        self.model.draw(self.rng, 10000)
        self.restore()
        names = [name for name, (_, on) in self.model.vrfs.items() if on]
        while self.connection.call("status")["counters"]["answerSeq"] < SEED_LOG:
            self.connection.call("apply", lines=[f"vrf {name} multicast {word}" for name in names for word in ("off", "on")])

    def work(self, begin, end):
        """Changes, comparisons and a line every ten seconds, until the end."""
        told, compared, harmed = begin, begin, begin
        while (now := time.monotonic()) < end and not self.agent.is_over.is_set():
            if now - told >= 10:
                self.tell(now - begin)
                told = now
            if self.options.fault and now - harmed >= 0.4:
                self.guarded(self.harm)
                harmed = now
            if now - compared >= COMPARE_EVERY:
                self.guarded(self.compare)
                compared = time.monotonic()
            self.guarded(self.step)
            time.sleep(self.rng.choice((0, 0.001, 0.01)))

    def guarded(self, work):
        """Does it; when the agent goes meanwhile, its successor is given all that was written, and compared."""
        while True:
            try:
                work()
                return
            except Gone as error:
                if not self.recover(error):
                    return
                work = self.compare_after_kill

    def recover(self, error):
        """Whether there is an agent again that has all."""
        instance = self.instance
        while not self.agent.is_over.is_set():
            try:
                self.connect()
                if self.instance == instance:
                    self.agent.problems.append(f"the agent dropped the client that changes: {error}")
                    self.agent.kills.insert(0, 0)
                    time.sleep(0.5)
                    continue
                self.note(self.restore)
                return True
            except Gone:
                time.sleep(0.005)
        return False

    def connect(self):
        if self.connection:
            self.connection.close()
        self.connection = Connection(self.agent.path)
        self.instance = self.connection.call("status")["instance"]

    def restore(self):
        lines = self.model.lines(self.rng)
        size = self.rng.randint(CHUNK // 6, CHUNK)
        for at in range(0, len(lines), size):
            self.apply(lines[at:at + size])

    def apply(self, lines, **parameters):
        return self.connection.call("apply", lines=lines, **parameters)

    def note(self, work, *arguments):
        """Does it, and keeps when that was."""
        begin = time.perf_counter()
        self.whole = None
        try:
            return work(*arguments)
        finally:
            self.lasting.append((begin, time.perf_counter(), self.whole or work.__name__))

    def under_way(self, begin, end):
        """What was done here between these moments, first of all an apply."""
        at = bisect.bisect(self.lasting, (end,))
        names = {name for start, stop, name in self.lasting[max(at - 3, 0):at] if stop > begin}
        return next((name for name in APPLIES if name in names), next(iter(names), "nothing"))

    # ---- changes

    def step(self):
        """One random change, of one line to some thousand."""
        after = self.model.copy()
        how = self.rng.choices((self.one, self.many, self.all_at_once, self.dry_first, self.refused), (60, 20, 10, 5, 5))[0]
        self.note(how, after)

    def done(self, after, count):
        self.model = after
        self.counts["changes"] += count

    def one(self, after):
        lines = after.draw(self.rng, 1)
        self.whole = whole_vrf(lines)
        for line in lines:
            self.connection.call("command", line=line)
        self.done(after, len(lines))

    def many(self, after):
        lines = after.draw(self.rng, self.rng.randint(2, 100))
        self.whole = whole_vrf(lines)
        self.connection.send_line([{"jsonrpc": "2.0", "id": n, "method": "command", "params": {"line": line}}
                                   for n, line in enumerate(lines)])
        for answer in self.connection.answer(None):
            if "error" in answer:
                raise Refused(f"{lines[answer['id']]}: {answer['error']}")
        self.done(after, len(lines))

    def all_at_once(self, after):
        lines = after.draw(self.rng, int(10 ** self.rng.uniform(1, 3.5)))
        self.apply(lines)
        self.done(after, len(lines))

    def dry_first(self, after):
        """What a dry run foretells is what comes; the kernel's VRFs change meanwhile."""
        lines = after.draw(self.rng, self.rng.randint(1, 500))
        ours = [{key: value for key, value in mroute_answers(result).items() if key[2] >= FIRST_ID}
                for result in (self.apply(lines, dryRun=True), self.apply(lines))]
        if ours[0] != ours[1]:
            self.differences.append("what a dry run foretold is not what came")
        self.done(after, len(lines))

    def refused(self, after):
        """One line that can't be done: none of the others is."""
        lines = after.draw(self.rng, self.rng.randint(1, 1000))
        wrong = ("request mroute intf a vrf 0 vlan 1 source any group any", "vrf honest id 16777216", "dance",
                 "request mroute intf a vrf 0 vlan 0 source any group 239.1.1.1", "expect trace x")
        lines.insert(self.rng.randint(0, len(lines)), self.rng.choice(wrong))
        try:
            self.apply(lines)
            self.model = after
            self.differences.append("what should be refused was not")
        except Refused:
            self.counts["refused"] += 1

    def harm(self):
        """Damage on purpose: each kind turns the verdict."""
        fault = self.options.fault
        pid = self.agent.process.pid
        if fault == "stop":
            os.kill(pid, signal.SIGSTOP)
            time.sleep(0.1)
            os.kill(pid, signal.SIGCONT)
        elif fault == "death":
            os.kill(pid, signal.SIGABRT)
            self.options.fault = None
        elif fault == "file":
            open(self.agent.path + ".lock.old", "w").close()
        else:
            request = self.rng.choice([request for request in self.model.requests if request[0] == "mroute"])
            fields = dict(zip(("intf", "vrfId", "vlanId", "sourceIp", "groupIp"), request[1:]), type=0)
            if fault == "request":
                self.connection.call("del", path="api/mroute/req", attribute="mrouteReq", key=fields)
            else:
                self.connection.call("set", path="api/mroute/resp", attribute="mrouteResp", key=fields, value=["Wrong"], raw=True)

    # ---- comparing and telling

    def pause_kernel(self):
        self.pipes["kernel"].send("pause")
        told = self.pipes["kernel"].recv()
        self.counts["kernel"], self.counts["routes"] = told["changes"], told["routes"]

    def compare(self):
        if self.namespace:
            self.pause_kernel()
        try:
            self.differences += self.note(compare, self.connection, self.model, self.pipes["watcher"],
                                          bool(self.namespace), self.rng.random() < 0.3)
            self.counts["comparisons"] += 1
        finally:
            if self.namespace:
                self.pipes["kernel"].send("go")

    def compare_after_kill(self):
        self.compare()
        self.counts["comparisons after a kill"] += 1

    def collect(self):
        """The waits since the last time, as (begin, wait), and the machine's delays."""
        for name in ("honest", "machine"):
            self.pipes[name].send("tell")
        honest = self.pipes["honest"].recv()
        self.waits += honest["waits"]
        self.dropped += len(honest["dropped"])
        for name, values in self.pipes["machine"].recv().items():
            self.delays[name] += values
        return [wait for _, wait in honest["waits"]]

    def tell(self, seconds):
        changes = self.counts["changes"]
        waits = self.collect()
        try:
            clients = self.connection.call("status")["counters"]["clients"]
        except Gone:
            clients = "-"
        print(f"{seconds:5.0f} s: {changes / seconds:6.0f} changes/s, {self.counts['routes']} kernel routes, {clients} clients,"
              f" waits {times(waits)} ms, {self.agent.memory() >> 10} MiB, {self.agent.killed} kills,"
              f" {self.counts['comparisons']} comparisons, {len(self.differences)} differences", flush=True)

    # ---- the end

    def verdict(self, memory):
        """Prints the table; what is wrong, as texts."""
        self.collect()
        self.pipes["watcher"].send("counts")
        watched = self.pipes["watcher"].recv()
        waits = [wait for _, wait in self.waits]
        whiles = [self.under_way(begin, begin + wait) for begin, wait in self.waits]
        apart = [wait for wait, name in zip(waits, whiles) if name not in APPLIES]
        slow = collections.Counter(name for wait, name in zip(waits, whiles) if wait > WAIT_LIMIT)
        start, end = memory
        own = max(part(self.delays["late"], 0.99), part(self.delays["echo"], 0.99))
        counters = self.connection.call("status")["counters"]
        self.agent.see_memory()
        rows = {
            "changes made, lists refused": f"{self.counts['changes']}, {self.counts['refused']}",
            "kernel changes": self.counts["kernel"],
            "answers told to the watcher": f"{watched['told']}; came back {watched['resumed']} times, began anew {watched['lost']}",
            "honest client's waits, ms": f"{times(waits)} (median, 99 %, worst of {len(waits)})",
            "  with no apply or VRF under way": times(apart),
            "  those over 5 ms, while": dict(slow.most_common()),
            "machine's wakeups, ms late": times(self.delays["late"]),
            "machine's echoes, ms": times(self.delays["echo"]),
            "memory start, peak, end, MiB": f"{start >> 10}, {self.agent.peak >> 10}, {end >> 10}",
            "counters of the last agent": {name: counters[name] for name in (
                "clientMemory", "clientMemoryMost", "cutOff", "closedIdle", "turnedAway") if name in counters},
            "kills, slowest return": f"{self.agent.killed}, {self.agent.slowest * 1000:.0f} ms",
            "comparisons, after a kill": f"{self.counts['comparisons']}, {self.counts['comparisons after a kill']}",
            "differences": len(self.differences),
        }
        print()
        for name, value in rows.items():
            print(f"{name:30} {value}")
        rules = {
            f"the honest client waits {part(apart, 0.99) * 1000:.1f} ms (99 %, no apply or VRF under way)": part(apart, 0.99) > WAIT_LIMIT + own,
            f"a return takes {self.agent.slowest:.2f} s": self.agent.slowest > RETURN_LIMIT,
            f"{end - start} KiB more in the end": end > start + MEMORY_LIMIT,
            f"the watcher heard {watched['gaps']} gaps": watched["gaps"] > 0,
            f"the agent dropped honest clients: {self.dropped}, watcher {watched['dropped']}": self.dropped + watched["dropped"] > 0,
            "nothing was compared": self.counts["comparisons"] == 0,
        }
        return self.differences + [text for text, is_broken in rules.items() if is_broken]

    def clean(self):
        for process in self.processes.values():
            process.terminate()
        self.agent.end()


def whole_vrf(lines):
    """The name of changes that make, remove, number or switch a VRF; None for others."""
    return "whole_vrf" if any(line.startswith(("vrf ", "no vrf ")) for line in lines) else None


def part(values, share):
    """The value that so many of the sorted values don't exceed."""
    return sorted(values)[min(int(len(values) * share), len(values) - 1)] if values else 0.0


def times(values):
    return "/".join(f"{part(values, share) * 1000:.2f}" for share in (0.5, 0.99, 1))


def main():
    parser = argparse.ArgumentParser(prog="./dev soak", description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--bin", default="build/release/bin", help="where kestrel-agent is")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
    parser.add_argument("--fault", choices=FAULTS, help="damage that the verdict must notice")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    folder = tempfile.mkdtemp(prefix="kestrel-soak-")
    namespace = f"kestrel-soak-{os.getpid()}"
    if why_not := kernel.make_namespace(namespace):
        print(f"soak: no kernel churn: no network namespace can be made ({why_not})")
        namespace = None
    with open(f"{folder}/kernel.json", "w", encoding="ascii") as config:
        config.write(kernel.CONFIG)
    print(f"soak: {options.minutes:g} minutes, seed {options.seed}, in {folder}", flush=True)
    soak = Soak(options, folder, namespace)
    wrong = ["it was ended before its time"]
    try:
        wrong = soak.verdict(soak.run())
    except Gone as error:
        wrong = [str(error)]
    finally:
        soak.clean()
        if namespace:
            subprocess.run(["ip", "netns", "del", namespace], check=False)
        shutil.rmtree(folder)
    wrong += soak.agent.problems
    for text in wrong[:20]:
        print(f"WRONG: {text}")
    print(f"soak: {'FAILED' if wrong else 'held'}, seed {options.seed}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
