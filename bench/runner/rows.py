"""What is measured, and what has to be reached.

A row is one run of the load generator against one server. A sample is what one run gave: {"round", "row", "server",
"figures"}. Ratios are taken within a round, where both sides met the same state of the machine, and the median of the
rounds counts.
"""

import itertools
import statistics
from dataclasses import dataclass

from runner.servers import BEAST, LIMIT, OURS

USUAL_DESCRIPTORS = 1024


@dataclass(frozen=True)
class Row:
    key: str
    title: str
    arguments: tuple  # of bench_load
    figure: str  # the one that stands for the row
    also: tuple = ()  # further figures of the same run for the table: (title, figure)
    group: str = ""  # rows of a group are measured one after the other on each server: they are compared there
    ours_only: bool = False  # compared with another row of the same server, not with peers
    descriptors: int = 0  # that the server may have; 0: as many as the driver


def throughput(key, title, *arguments, **more):
    return Row(key, "CPU us per message, " + title, ("--mode", "tput", *arguments), "server_us_per_msg", **more)


def ping_pong(key, where, *arguments):
    return Row(key, f"Round trip p50 us, one pair{where}", ("--mode", "lat", *arguments), "p50_us",
               also=((f"Round trip p99 us, one pair{where}", "p99_us"),
                     (f"CPU us per message, ping-pong{where}", "server_us_per_msg")))


def connection(key, where, *arguments, **more):
    return Row(key, "CPU us per connection, handshake and close" + where, ("--mode", "conn", *arguments),
               "server_us_per_conn", **more)


def beside_idle(count, **more):
    return throughput(f"idle_{count}", f"beside {count:,} idle connections", "--window", "64", "--idle", str(count),
                      group="idle", **more)


ROWS = (
    throughput("tput_100", "100 B, 1 pair, 256 in flight", "--window", "256"),
    throughput("tput_100_pairs", "100 B, 100 pairs, 4 in flight each", "--pairs", "100", "--window", "4"),
    throughput("tput_1k", "1 KB, 1 pair, 64 in flight", "--size", "1000", "--window", "64"),
    throughput("tput_64k", "64 KiB, 1 pair, 8 in flight", "--size", "65536", "--window", "8"),
    ping_pong("lat", ""),
    ping_pong("lat_idle_5000", " beside 5,000 idle connections", "--idle", "5000"),
    beside_idle(0),
    beside_idle(1000),
    beside_idle(5000),
    # The busy pair is the last of the list, where a walk takes longest.
    throughput("pairs_2000", "the last of 2,000 pairs busy", "--window", "64", "--idle", "3998", group="idle",
               ours_only=True),
    connection("conn", "", descriptors=USUAL_DESCRIPTORS),
    connection("conn_waiting_1", " beside 1 waiting record", "--waiting", "1", group="waiting", ours_only=True),
    connection("conn_waiting_2000", " beside 2,000 waiting records", "--waiting", "2000", group="waiting",
               ours_only=True),
    Row("mem", "Resident bytes per idle connection", ("--mode", "mem"), "bytes_per_idle_conn",
        also=(("Resident bytes per connection after one 100-byte message", "bytes_per_used_conn"),)),
)


def plan_of(rows: list, servers: list) -> list:
    """One round: the measurements that are compared with each other stand side by side."""
    plan = []
    for _, group in itertools.groupby(rows, lambda row: row.group or row.key):
        members = list(group)
        plan += [(row, server) for server in servers for row in members if server.key == OURS or not row.ours_only]
    return plan


def by_round(samples: list, row: str, server: str, figure: str) -> dict:
    return {sample["round"]: sample["figures"][figure] for sample in samples
            if sample["row"] == row and sample["server"] == server and figure in sample["figures"]}


def ratios(numerators: dict, denominators: dict) -> list:
    """Of two results of by_round; a round in which one of the two is missing has none."""
    return [numerators[round_] / denominators[round_] for round_ in numerators if denominators.get(round_)]


def median(values):
    """None without values."""
    values = list(values)
    return statistics.median(values) if values else None


@dataclass(frozen=True)
class Target:
    what: str
    bound: float
    value: tuple  # (row, server, figure)
    over: tuple = ()  # the target is a ratio to this one
    at_least: bool = False  # the bound is from below

    def values(self, samples: list) -> list:
        numerators = by_round(samples, *self.value)
        return ratios(numerators, by_round(samples, *self.over)) if self.over else list(numerators.values())

    def is_met(self, samples: list):
        """None when it was not measured."""
        value = median(self.values(samples))
        return None if value is None else (value >= self.bound if self.at_least else value <= self.bound)


def against(peer: str, key: str, bound: float) -> Target:
    row = next(row for row in ROWS if row.key == key)
    name = {BEAST: "Boost.Beast", LIMIT: "the limit"}[peer]
    return Target(f"{row.title}: to {name}", bound, (key, OURS, row.figure), (key, peer, row.figure))


def within(what: str, bound: float, key: str, base: str) -> Target:
    row = next(row for row in ROWS if row.key == key)
    return Target(what, bound, (key, OURS, row.figure), (base, OURS, row.figure))


def micro(what: str, bound: float, name: str, figure: str = "real_ns", over: str = "", **more) -> Target:
    return Target(what, bound, (name, OURS, figure), (over, OURS, figure) if over else (), **more)


# Against Boost.Beast a bound has the spread that machines show: on some it is faster, and so the ratio is higher.
TARGETS = (
    against(BEAST, "tput_100", 0.2),
    against(BEAST, "tput_100_pairs", 0.45),
    against(LIMIT, "tput_100_pairs", 2),
    against(BEAST, "tput_64k", 0.35),
    against(LIMIT, "tput_64k", 1.3),
    against(LIMIT, "lat", 1.25),
    within("CPU per message beside 5,000 idle connections: to none", 1.15, "idle_5000", "idle_0"),
    within("CPU per message at 2,000 pairs, one busy: to one pair", 1.3, "pairs_2000", "idle_0"),
    within("CPU per connection beside 2,000 waiting records: to one", 1.3, "conn_waiting_2000", "conn_waiting_1"),
    against(BEAST, "conn", 1.2),
    Target("Resident bytes per idle connection", 8192, ("mem", OURS, "bytes_per_idle_conn")),
    Target("Resident bytes per connection after one 100-byte message", 8192, ("mem", OURS, "bytes_per_used_conn")),
    micro("Log line printed to a file, ns", 250, "logPrinted/real_time/threads:1"),
    micro("Silent trace call, empty table, ns", 25, "logSilentWithEmptyTable/real_time/threads:1"),
    micro("Silent trace call, 20 entries, ns", 60, "logSilentWithFullTable/real_time/threads:1"),
    micro("Events handed to the event thread per second, one producer", 1e6, "eventsInABurst<Library>/real_time",
          "items_per_second", at_least=True),
    micro("Clock server, requests per second, 1 in flight: to a bare loop", 0.9,
          "clockRequests<Library>/1/real_time", "items_per_second", "clockRequests<BareLoop>/1/real_time",
          at_least=True),
    micro("Clock server, requests per second, 16 in flight: to a bare loop", 0.9,
          "clockRequests<Library>/16/real_time", "items_per_second", "clockRequests<BareLoop>/16/real_time",
          at_least=True),
)
