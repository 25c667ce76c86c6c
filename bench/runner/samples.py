"""Samples and how they are looked at.

A sample is one measurement: {"round", "row", "server", "figures"}. Ratios are taken within a round, where both sides
met the same state of the machine, and the median of the rounds counts.
"""

import statistics


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
