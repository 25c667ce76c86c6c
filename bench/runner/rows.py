"""What is measured: each row is one run of the load generator against one server."""

import itertools
from dataclasses import dataclass


@dataclass(frozen=True)
class Row:
    key: str
    title: str
    arguments: tuple  # of bench_load
    figure: str  # the one that stands for the row in tables and charts
    unit: str
    also: tuple = ()  # further figures of the same run for the table: (title, figure, unit)
    group: str = ""  # rows of a group are measured one after the other on each server: they are compared there
    ours_only: bool = False  # compared with another row of the same server, not with peers


def throughput(key, title, *arguments, **more):
    return Row(key, title, ("--mode", "tput", *arguments), "server_us_per_msg", "us", **more)


def ping_pong(key, where, *arguments):
    return Row(key, f"Round trip p50, one pair{where}", ("--mode", "lat", *arguments), "p50_us", "us",
               also=((f"Round trip p99, one pair{where}", "p99_us", "us"),
                     (f"CPU per message, ping-pong{where}", "server_us_per_msg", "us")))


def beside_idle(count, **more):
    title = f"CPU per message beside {count:,} idle connections"
    return throughput(f"idle_{count}", title, "--window", "64", "--idle", str(count), group="idle", **more)


def beside_waiting(count):
    title = f"CPU per connection beside {count:,} waiting record{'' if count == 1 else 's'}"
    return Row(f"conn_waiting_{count}", title, ("--mode", "conn", "--waiting", str(count)), "server_us_per_conn",
               "us", group="waiting",
               ours_only=True)


ROWS = (
    throughput("tput_100", "CPU per message, 100 B, 1 pair, 256 in flight", "--window", "256"),
    throughput("tput_100_pairs", "CPU per message, 100 B, 100 pairs, 4 in flight each", "--pairs", "100", "--window",
               "4"),
    throughput("tput_1k", "CPU per message, 1 KB, 1 pair, 64 in flight", "--size", "1000", "--window", "64"),
    throughput("tput_64k", "CPU per message, 64 KiB, 1 pair, 8 in flight", "--size", "65536", "--window", "8"),
    ping_pong("lat", ""),
    ping_pong("lat_idle_5000", " beside 5,000 idle connections", "--idle", "5000"),
    beside_idle(0),
    beside_idle(100),
    beside_idle(1000),
    beside_idle(5000),
    # The busy pair is the last of the list, where a walk takes longest.
    throughput("pairs_2000", "CPU per message, the last of 2,000 pairs busy", "--window", "64", "--idle", "3998",
               group="idle", ours_only=True),
    Row("conn", "CPU per connection, handshake and close", ("--mode", "conn"), "server_us_per_conn", "us"),
    beside_waiting(1),
    beside_waiting(2000),
    Row("mem", "Resident memory per idle connection", ("--mode", "mem"), "bytes_per_idle_conn", "bytes",
        also=(("Resident memory per connection after one 100-byte message", "bytes_per_used_conn", "bytes"),)),
)


def plan_of(rows: list, servers: list, ours: str) -> list:
    """One round: the measurements that are compared with each other stand side by side."""
    plan = []
    for _, group in itertools.groupby(rows, lambda row: row.group or row.key):
        members = list(group)
        plan += [(row, server) for server in servers for row in members if server.key == ours or not row.ours_only]
    return plan
