"""Validates the model of a rollout: against results that are known, and against rollouts that were measured."""
from random import Random

from simpy import Environment
from simpy.events import Timeout

from rollout_model import DAY, Costs, Instances, Line, Rollout, Scenario, delay_s

MOST_PERCENT = 20  # difference between a measured rollout and its simulation
JOBS = 200000


class Middle(Random):
    """Each random number is the middle, so that results can be calculated manually: an interval is the
    server's, and a camera notices an offer after half of it."""

    def random(self) -> float:
        return 0.5


def waiting_s(load: float, background: float = 0.0) -> float:
    """Returns the mean time until the service of a request begins, with random arrivals and a service time of 1 s."""
    env, random, waited = Environment(), Random(1), []
    instances = Instances(env, 1)
    instances.background = background

    def arrive(event: Timeout) -> None:
        waited.append(instances.answer_s(1.0) - 1.0)
        if len(waited) < JOBS:
            Timeout(env, random.expovariate(load)).callbacks.append(arrive)

    Timeout(env, 0).callbacks.append(arrive)
    env.run()
    return sum(waited) / JOBS


def download_s(load: float) -> float:
    """Returns the mean time of a download of 1 byte on average, with random arrivals and a line of 1 byte a second."""
    env, random, begun, taken = Environment(), Random(1), [], []
    line = Line(env, 1.0, float("inf"))

    def arrive(event: Timeout) -> None:
        begun.append(env.now)
        line.start(random.expovariate(1.0), len(begun) - 1, lambda number: taken.append(env.now - begun[number]))
        if len(begun) < JOBS:
            Timeout(env, random.expovariate(load)).callbacks.append(arrive)

    Timeout(env, 0).callbacks.append(arrive)
    env.run()
    return sum(taken) / JOBS


def known_results():
    """Yields the name, value, expected value and largest difference in percent of each."""
    # Pollaczek and Khinchine: load / (2 (1 - load)).
    yield "mean wait at an instance with 80 % load", waiting_s(0.8), 2.0, 5
    # The instance is 60 % as fast for the rest, and busy for two thirds of the time.
    yield "the same with half of the load in the background", waiting_s(0.4, 0.4), 1.0, 5
    # With equal shares the mean time is size / (1 - load), whatever the distribution of the sizes.
    yield "mean time of a download on a line with 70 % load", download_s(0.7), 1 / 0.3, 5
    free = Costs(poll_s=0, request_s=0, requests=12)
    # Each group: offer noticed at 50 s, 500 bytes downloaded at 100 s, the agent runs at 150 s and polls half of a part
    # of the interval later, at 162.5 s; the next one starts at 164 s.
    run = Rollout(Scenario(groups=(5, 5), polling_s=100, upgrade_s=50, package_bytes=100, line_bytes_s=10), free,
                  Middle()).run()
    yield "two groups of 5 cameras: seconds", run.seconds, 326.5, 0
    # 12 for each action, 5 * 50 / 10 during the downloads of each group, and 2140 camera-seconds between actions.
    yield "two groups of 5 cameras: requests", run.requests, 120 + 2 * 25 + 21.4, 0
    # From 50 s to 120 s the instance answers the 70 requests before the upgrades. The first camera polls again
    # at 173.5 s, and from then on 50 requests follow without a gap.
    run = Rollout(Scenario(groups=(10,), polling_s=100, upgrade_s=50), Costs(poll_s=0, request_s=1, requests=12),
                  Middle()).run()
    yield "10 cameras at a slow instance: seconds", run.seconds, 223.5, 0
    yield "10 cameras at a slow instance: slowest answer", run.slowest_s, 10, 0
    # The first group is upgraded before its failures are reported at 162.5 s. The second one must not start.
    run = Rollout(Scenario(groups=(5, 5), polling_s=100, upgrade_s=50, failing=1, failure_s=100), free, Middle()).run()
    yield "bad image: upgraded cameras", run.upgraded, 5, 0
    yield "bad image: seconds until it is stopped", run.stopped_s or 0.0, 164, 0
    # The window opens after 6 hours, and half an hour later the cameras poll.
    run = Rollout(Scenario(groups=(10,), polling_s=3600, upgrade_s=50, window=(2 * 3600, 4 * 3600),
                           start_of_day_s=20 * 3600), free, Middle()).run()
    yield "window: seconds until all have succeeded", run.seconds, 6.5 * 3600 + 50 + 75 / 2, 0
    # The window is half as long as the interval, so half of the cameras do not poll in it on the first day.
    run = Rollout(Scenario(groups=(10000,), polling_s=7200, upgrade_s=50, window=(6 * 3600, 7 * 3600)), free,
                  Random(1)).run()
    yield "a short window: part of the cameras on the first day", sum(at < DAY for at in run.ended) / 10000, 0.5, 5
    # An answer takes 61 s, and the agent waits for 60. It sends the poll at 50 s, and after delays of 25, 50 and 100 s
    # again at 135, 245 and 405 s.
    run = Rollout(Scenario(groups=(1,), polling_s=100, upgrade_s=50, longest_s=500),
                  Costs(poll_s=0, request_s=61, requests=12), Middle()).run()
    yield "a server that is too slow: repeated requests", run.failed_requests, 4, 0
    busy = Costs(poll_s=1 / 400, request_s=1 / 400, requests=24)
    one, many = (Rollout(Scenario(groups=(2000,), polling_s=60, upgrade_s=10, ranges=64, together=together,
                                  instances=10), busy, Random(1)).run() for together in (1, 16))
    yield "16 requests in one event: busy in the busiest minute", many.busiest_load, one.busiest_load, 2
    yield "16 requests in one event: seconds until half of the cameras have succeeded", *(
        run.seconds_until(0.5) for run in (many, one)), 2
    yield "longest delay after failures", delay_s(300, 40, Middle()), 300, 0
    yield "first delay with a pending action", delay_s(300, 1, Middle(), is_idle=False), 5, 0


def check(measured: dict, scenario_of) -> bool:
    """Prints each comparison. `scenario_of`: returns scenario and costs of a measured rollout. Returns whether all are
    as expected."""
    passed = True

    def compare(name: str, value: float, expected: float, percent: float) -> None:
        nonlocal passed
        right = abs(value - expected) <= max(percent / 100, 1e-9) * abs(expected)
        passed = passed and right
        print(f"  {'ok' if right else 'WRONG':<5}  {name}: {value:.6g}, expected {expected:.6g}"
              + (f" within {percent:g} %" if percent else ""))

    for row in known_results():
        compare(*row)
    for run in measured.get("load", []):
        simulated = Rollout(*scenario_of(measured, run), Random(1)).run()
        name = f"{run['cameras']} cameras, {run['instances']} instance(s), measured"
        compare(f"{name}: seconds", simulated.seconds, run["seconds"], MOST_PERCENT)
        compare(f"{name}: requests", simulated.requests, run["requests"], MOST_PERCENT)
    return passed
