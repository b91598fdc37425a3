"""The agent of a soak run: started, killed at random moments and started again at once, looked after meanwhile."""

import os
import signal
import subprocess
import threading
import time

from rpc import Connection, Gone

BACK_LIMIT = 30  # seconds after which a start has failed for good


class Agent:
    """One agent after the other at one socket. A thread of its own kills it when the time has come and sees to it that
    it is back; `problems` has what must not be."""

    def __init__(self, bin_folder, folder, namespace, rng):
        self.program = os.path.join(bin_folder, "kestrel-agent")
        self.folder, self.namespace, self.rng = folder, namespace, rng
        self.path = os.path.join(folder, "socket")
        self.log = open(os.path.join(folder, "log"), "w+b")
        self.process = None
        self.starts = 0
        self.kills = []  # moments that are left
        self.killed = 0
        self.slowest = 0.0
        self.peak = 0
        self.problems = []
        self.is_over = threading.Event()
        self.thread = threading.Thread(target=self.look_after)

    def start(self):
        """Starts it and waits until it serves."""
        begin = time.monotonic()
        toggle = f"KestrelNatMfibLumen={self.rng.choice(('on', 'off'))}"
        command = [self.program, "--socket", self.path, "--software-chip", "--toggle", toggle]
        if os.geteuid() == 0:  # what else the machine does is not what is measured
            command = ["nice", "-n", "-5", *command]
        if self.namespace:
            command = ["ip", "netns", "exec", self.namespace, *command, "--kernel", f"{self.folder}/kernel.json"]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        self.starts += 1
        while time.monotonic() - begin < BACK_LIMIT and self.process.poll() is None:
            try:
                connection = Connection(self.path)
                connection.call("status")
                connection.close()
                return
            except Gone:
                time.sleep(0.005)
        raise Gone("the agent did not start:\n" + self.last_words())

    def last_words(self):
        self.log.flush()
        with open(self.log.name, "rb") as log:
            return log.read()[-3000:].decode(errors="replace")

    def memory(self, field="VmRSS"):
        """KiB of the process; none when it has just been killed."""
        try:
            with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
                return next((int(line.split()[1]) for line in status if line.startswith(field)), 0)
        except OSError:
            return 0

    def see_memory(self):
        self.peak = max(self.peak, self.memory("VmHWM"))

    def look_after(self):
        """The thread."""
        while not self.is_over.wait(0.02):
            if self.process.poll() is not None:
                self.problems.append(f"the agent ended by itself, status {self.process.returncode}:\n" + self.last_words())
                self.come_back()
            elif self.kills and time.monotonic() >= self.kills[0]:
                self.kills.pop(0)
                self.see_memory()
                self.killed += 1
                begin = time.monotonic()
                self.process.kill()
                self.process.wait()
                self.come_back()
                self.slowest = max(self.slowest, time.monotonic() - begin)

    def come_back(self):
        try:
            self.start()
        except Gone as error:
            self.problems.append(str(error))
            self.is_over.set()
            return
        self.see_files()

    def see_files(self):
        """The folder has what was put there and the socket, nothing that a killed agent left."""
        stale = set(os.listdir(self.folder)) - {"socket", "log", "kernel.json"}
        if stale:
            self.problems.append(f"stale files after start {self.starts}: {sorted(stale)}")

    def end(self):
        """Ends it in the clean way; nothing of it may stay."""
        self.is_over.set()
        if self.thread.is_alive():
            self.thread.join()
        if not self.process or self.process.poll() is not None:
            return
        self.process.send_signal(signal.SIGTERM)
        try:
            if self.process.wait(10) != 0:
                self.problems.append(f"TERM ended the agent with status {self.process.returncode}:\n" + self.last_words())
        except subprocess.TimeoutExpired:
            self.problems.append("TERM did not end the agent within 10 s")
            self.process.kill()
            self.process.wait()
        if os.path.exists(self.path):
            self.problems.append("the socket is there after a clean end")
