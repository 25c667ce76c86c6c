"""What has to be reached, and whether it was."""

from dataclasses import dataclass
from typing import Optional

from runner.samples import by_round, median, ratios
from runner.servers import BEAST, LIMIT, OURS


@dataclass(frozen=True)
class Figure:
    row: str
    server: str
    name: str

    def by_round(self, samples: list) -> dict:
        return by_round(samples, self.row, self.server, self.name)


@dataclass(frozen=True)
class Target:
    what: str
    bound: float
    value: Figure
    over: Optional[Figure] = None  # the target is a ratio to this one
    at_least: bool = False  # the bound is from below
    unit: str = ""

    def values(self, samples: list) -> list:
        numerators = self.value.by_round(samples)
        if self.over is None:
            return list(numerators.values())
        return ratios(numerators, self.over.by_round(samples))

    def is_met(self, value: float) -> bool:
        return value >= self.bound if self.at_least else value <= self.bound

    def verdict(self, samples: list) -> dict:
        values = self.values(samples)
        middle = median(values)
        return {"what": self.what, "bound": self.bound, "at_least": self.at_least, "unit": self.unit,
                "rounds": values, "median": middle, "met": None if middle is None else self.is_met(middle)}


def cpu(row: str, server: str) -> Figure:
    return Figure(row, server, "server_us_per_msg")


def against(peer: str, row: str, what: str, bound: float, name: str = "server_us_per_msg") -> Target:
    return Target(what, bound, Figure(row, OURS, name), Figure(row, peer, name))


def micro(what: str, bound: float, row: str, **more) -> Target:
    return Target(what, bound, Figure(row, OURS, "value"), **more)


TARGETS = (
    against(BEAST, "tput_100", "CPU per message, 100 B, 1 pair, 256 in flight: to Boost.Beast", 0.12),
    against(BEAST, "tput_100_pairs", "CPU per message, 100 B, 100 pairs, 4 in flight: to Boost.Beast", 0.4),
    against(LIMIT, "tput_100_pairs", "CPU per message, 100 B, 100 pairs, 4 in flight: to the limit", 2),
    against(BEAST, "tput_64k", "CPU per message, 64 KiB, 8 in flight: to Boost.Beast", 0.35),
    against(LIMIT, "lat", "Round trip p50, one pair: to the limit", 1.25, "p50_us"),
    Target("CPU per message beside 5,000 idle connections: to none", 1.15, cpu("idle_5000", OURS), cpu("idle_0", OURS)),
    Target("CPU per message at 2,000 pairs, one busy: to one pair", 1.3, cpu("pairs_2000", OURS), cpu("idle_0", OURS)),
    Target("CPU per connection beside 2,000 waiting records: to one", 1.3,
           Figure("conn_waiting_2000", OURS, "server_us_per_conn"),
           Figure("conn_waiting_1", OURS, "server_us_per_conn")),
    against(BEAST, "conn", "CPU per connection, handshake and close: to Boost.Beast", 1.6, "server_us_per_conn"),
    Target("Resident memory per idle connection", 8 * 1024, Figure("mem", OURS, "bytes_per_idle_conn"), unit="bytes"),
    Target("Resident memory per connection after one 100-byte message", 18 * 1024,
           Figure("mem", OURS, "bytes_per_used_conn"), unit="bytes"),
    micro("Log line printed to a file", 250, "log_printed", unit="ns"),
    micro("Silent trace call, empty table", 25, "log_silent_empty", unit="ns"),
    micro("Silent trace call, 20 entries", 60, "log_silent_20", unit="ns"),
    micro("Events handed to the event thread, one producer", 1e6, "dispatcher_events", at_least=True, unit="per s"),
    micro("Clock server, requests per second: to a bare loop", 0.9, "clock_ratio", at_least=True),
)
