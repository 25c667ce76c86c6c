"""What the run has seen: counts, faults, latencies, and the server's own state out of /proc."""

import collections
import os
import time


class Record:
    """Counts of what went well, a list of what did not."""

    FAULTS_SHOWN = 20

    def __init__(self):
        self.counts = collections.Counter()
        self.faults = []
        self.latencies = []  # round trips in seconds since the last line
        self.p99s = []

    def count(self, what, amount=1):
        self.counts[what] += amount

    def fault(self, what):
        self.counts["faults"] += 1
        if len(self.faults) < self.FAULTS_SHOWN:
            self.faults.append(what)
            print(f"FAULT: {what}", flush=True)

    def latency(self, seconds):
        self.latencies.append(seconds)

    def take_latencies(self):
        """Median, 99th percentile and maximum in milliseconds since the last call."""
        samples, self.latencies = sorted(self.latencies), []
        if not samples:
            return 0.0, 0.0, 0.0
        at = [samples[int(len(samples) * share)] for share in (0.5, 0.99)] + [samples[-1]]
        self.p99s.append(at[1])
        return tuple(1000 * value for value in at)


class ServerDied(Exception):
    """The server under test has ended by itself."""


class Process:
    """The server as the system sees it."""

    def __init__(self, pid):
        self._folder = f"/proc/{pid}"
        self._ticks = self._cpu_ticks()
        self._looked_at = time.monotonic()

    def _status(self, name):
        with open(self._folder + "/status", encoding="ascii") as status:
            for line in status:
                if line.startswith(name + ":"):
                    return int(line.split()[1])
        raise ServerDied  # one that nobody has waited for keeps its entry, without figures

    def _cpu_ticks(self):
        with open(self._folder + "/stat", encoding="ascii") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])

    def resident_mib(self):
        return self._status("VmRSS") / 1024

    def threads(self):
        return self._status("Threads")

    def descriptors(self):
        return len(os.listdir(self._folder + "/fd"))

    def cpu_percent(self):
        """Since the last call."""
        ticks, now = self._cpu_ticks(), time.monotonic()
        percent = 100 * (ticks - self._ticks) / os.sysconf("SC_CLK_TCK") / max(now - self._looked_at, 0.001)
        self._ticks, self._looked_at = ticks, now
        return percent
