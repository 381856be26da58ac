"""Figures as ratios of two programs that run alternately, A B A B ..., so that other load on the machine affects
both alike. The load still scatters the ratios, so a goal is compared with a confidence interval."""
import math
import statistics
import time
from dataclasses import dataclass

LEAST_PAIRS = 6  # fewer pairs do not allow an interval of this confidence
MEMORY_ROUNDS = 11  # peak memory scatters by some pages from run to run
CONFIDENCE = 0.95
STABLE = 0.02  # stop when half of the interval's width is less than this part of the median
NEAR_FLOOR = 1.25  # an unreachable goal counts as reached up to this multiple of the floor


@dataclass
class Row:
    """One line of the table. Without a `value`, the note gives the reason."""

    figure: str
    ours: str = ""
    baseline: str = ""
    value: float | None = None  # what the goal is compared with: a ratio, or a plain number
    goal: float | None = None
    low: float | None = None  # confidence interval of a timed value
    high: float | None = None
    unit: str = ""  # unit of a plain number; a ratio has none
    floor: float | None = None  # ratio of the unavoidable system calls alone to the same baseline
    counted: bool = False  # counted, or memory, so it does not depend on the load of the machine
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
    """Returns the confidence interval of the median for any distribution of the values. It is given by order
    statistics: the number of values below the median has a binomial distribution (p = 1/2), which
    determines how many values are left out at each end."""
    ordered, left_out, chance = sorted(values), 0, 0.0
    while True:
        chance += math.comb(len(ordered), left_out) / 2 ** len(ordered)
        if 2 * chance > 1 - CONFIDENCE:
            break
        left_out += 1
    at = max(left_out - 1, 0)
    return ordered[at], ordered[-1 - at]


class Rounds:
    """Results of several things that ran alternately: for each thing and round a dict of "wall", "cpu" etc.
    Ratios are computed within a round; the median is that of all rounds."""

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


def plain_row(figure: str, values: list[float], goal: float, unit: str, digits: int = 0, **more) -> Row:
    """Returns the row of a plain number that was measured several times."""
    low, high = interval(values)
    return Row(figure, value=round(statistics.median(values), digits), goal=goal, low=round(low, digits),
               high=round(high, digits), unit=unit, **more)


def spread(values: list[float]) -> float:
    """Returns the possible error of the median relative to the median: half of the interval's width."""
    low, high = interval(values)
    return (high - low) / 2 / statistics.median(values)


def run_rounds(things: dict, name: str = "wall", seconds: float = 20, most: int = 41,
               least: int = LEAST_PAIRS) -> Rounds:
    """Runs all things alternately; each is a function that returns its result. Runs at least `least`
    rounds, then continues until the ratio of the first two things in `name` is stable or the time is up."""
    rounds = Rounds()
    ours, baseline = list(things)[:2]
    end = time.monotonic() + seconds
    for count in range(1, most + 1):
        for thing, run in things.items():
            rounds.taken.setdefault(thing, []).append(run())
        if count < least:
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
