"""Figures as ratios of two things run in turn: A B A B ..., so that whatever else the machine does
meets both alike. What it does still scatters them, so a verdict is one on an interval."""
import math
import statistics
import time
from dataclasses import dataclass

LEAST_PAIRS = 6  # fewer give no interval of this confidence
CONFIDENCE = 0.95
STABLE = 0.02  # a median with an interval that reaches no farther than this needs no more pairs
NEAR_FLOOR = 1.25  # a goal out of reach counts as reached within this of the floor


@dataclass
class Row:
    """One line of the table. Without `value` it says why there is none."""

    figure: str
    ours: str = ""
    baseline: str = ""
    value: float | None = None  # what the goal is compared with: a ratio, or a plain number
    goal: float | None = None
    low: float | None = None  # between which the value lies, where it was timed
    high: float | None = None
    unit: str = ""  # of a plain number; a ratio has none
    floor: float | None = None  # what the bare calls that must be made give
    counted: bool = False  # does not depend on how busy the machine is
    note: str = ""

    def verdict(self) -> str:
        if self.value is None:
            return "skipped"
        if self.goal is None:
            return "shown"
        low = self.value if self.low is None else self.low
        high = self.value if self.high is None else self.high
        if high <= self.goal + 1e-9:
            return "yes"
        if low <= self.goal:
            return "unclear"
        out_of_reach = self.floor is not None and self.floor > self.goal
        return "floor" if out_of_reach and low <= NEAR_FLOOR * self.floor else "NO"


def interval(values: list[float]) -> tuple[float, float]:
    """Between which the median lies with CONFIDENCE, whatever the values' distribution: as many are
    left out at each end as a fair coin would hardly ever show heads fewer times."""
    ordered, left_out, chance = sorted(values), 0, 0.0
    while True:
        chance += math.comb(len(ordered), left_out) / 2 ** len(ordered)
        if 2 * chance > 1 - CONFIDENCE:
            break
        left_out += 1
    at = max(left_out - 1, 0)
    return ordered[at], ordered[-1 - at]


class Rounds:
    """What several things took that ran in turn, per thing and round: a dict of "wall", "cpu" and
    so on. A ratio is taken within a round, and the median is over the rounds."""

    def __init__(self):
        self.taken: dict[str, list[dict[str, float]]] = {}

    def median(self, thing: str, name: str) -> float:
        return statistics.median(round[name] for round in self.taken[thing])

    def ratios(self, ours: str, baseline: str, name: str, baseline_name: str = "") -> list[float]:
        return [a[name] / b[baseline_name or name]
                for a, b in zip(self.taken[ours], self.taken[baseline])]

    def row(self, figure: str, ours: str, baseline: str, name: str, show, goal=None,
            baseline_name: str = "", **more) -> Row:
        ratios = self.ratios(ours, baseline, name, baseline_name)
        return Row(figure, show(self.median(ours, name)),
                   show(self.median(baseline, baseline_name or name)), statistics.median(ratios),
                   goal, *interval(ratios), **more)


def spread(values: list[float]) -> float:
    """How far the median may be off, as a part of it."""
    low, high = interval(values)
    return (high - low) / 2 / statistics.median(values)


def run_rounds(things: dict, name: str = "wall", seconds: float = 20, most: int = 41) -> Rounds:
    """Runs all in turn, each a procedure that returns what it took: LEAST_PAIRS rounds, then on
    until the ratio of the first two in `name` is stable or the time is used up."""
    rounds = Rounds()
    ours, baseline = list(things)[:2]
    end = time.monotonic() + seconds
    for count in range(1, most + 1):
        for thing, run in things.items():
            rounds.taken.setdefault(thing, []).append(run())
        if count < LEAST_PAIRS:
            continue
        if spread(rounds.ratios(ours, baseline, name)) < STABLE or time.monotonic() > end:
            break
    return rounds


def in_seconds(value: float) -> str:
    return f"{value * 1000:.1f} ms" if value < 1 else f"{value:.2f} s"


def in_kib(value: float) -> str:
    return f"{value:.0f} KiB"


def in_ns(value: float) -> str:
    return f"{value:.1f} ns" if value < 100 else f"{value / 1000:.2f} us"


def shown_value(row: Row) -> str:
    return f"{row.value:g} {row.unit}" if row.unit else f"{row.value:.3f}"


def shown_interval(row: Row) -> str:
    if row.low is None:
        return ""
    return f"{row.low:g} .. {row.high:g}" if row.unit else f"{row.low:.3f} .. {row.high:.3f}"


def print_row(row: Row, file) -> None:
    if row.value is None:
        print(f"{row.figure}: skipped, {row.note}", file=file, flush=True)
        return
    goal = "-" if row.goal is None else f"<= {row.goal:g}"
    floor = "" if row.floor is None else f" (floor {row.floor:.2f})"
    note = f"  {row.note}" if row.note else ""
    print(f"{row.figure:<66} {row.ours:>11} {row.baseline:>11} {shown_value(row):>12} "
          f"{shown_interval(row):>18} {goal:>9}  {row.verdict()}{floor}{note}", file=file, flush=True)


def print_head(file) -> None:
    print(f"{'figure':<66} {'ours':>11} {'baseline':>11} {'ratio':>12} {'95 % interval':>18} "
          f"{'goal':>9}  ok", file=file)
