"""A rollout to any number of cameras as discrete events (SimPy): cameras with the agent's rules, instances of the
server with a queue each, and a line that the downloads share.

Events are the requests of an action, one by one or several as one event, the downloads and the upgrades. The polls of
cameras without a pending action, of cameras that wait for their window, and those during a download are a load that
takes its share of each instance, because a million cameras poll a hundred million times a day.
"""
import heapq
import re
from array import array
from collections import defaultdict
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from random import Random

from simpy import Environment
from simpy.events import Timeout

TOP = Path(__file__).resolve().parents[2]


def agent_number(name: str) -> int:
    """Returns a constant from the agent's source, so that the model has the agent's rules."""
    for file in sorted((TOP / "src/agent").rglob("*.cpp")):
        if found := re.search(rf"\b{name} = (\d+);", file.read_text(encoding="utf-8")):
            return int(found[1])
    raise SystemExit(f"extrapolate: no source of the agent defines {name}")


FIRST_RETRY_S = agent_number("FIRST_RETRY_S")
INTERVAL_PARTS = agent_number("INTERVAL_PARTS")
PART_MAX_S = agent_number("PART_MAX_S")
DOUBLINGS_MAX = agent_number("DOUBLINGS_MAX")
DOWNLOAD_POLL_S = agent_number("POLL_INTERVAL_MS") / 1000
STALL_S = 60  # the agent's setting stall-timeout: a request without an answer has failed
# The agent's requests between download and upgrade: offer, report. After the restart: poll, offer, result, poll,
# attributes. All others of an action, among them those for files, come before the end of the download.
REQUESTS_BEFORE_UPGRADE = 2
REQUESTS_AFTER_RESTART = 5
SCHEDULER_S = 2  # how often the server checks the conditions of its groups
MINUTE = 60
DAY = 86400


def part_of_interval_s(interval: float) -> float:
    return min(interval / INTERVAL_PARTS, PART_MAX_S)


def delay_s(interval: float, failures: int, random: Random, is_idle: bool = True) -> float:
    """Returns the time until the agent's next poll, as the agent's delay_ms() does."""
    if failures == 0:
        return interval * (0.9 + 0.2 * random.random())
    first = max(FIRST_RETRY_S, part_of_interval_s(interval)) if is_idle else FIRST_RETRY_S
    chosen = min(first * 2 ** min(failures - 1, DOUBLINGS_MAX), interval)
    return chosen * (0.5 + random.random())


@dataclass(frozen=True)
class Costs:
    """What requests cost the server. Seconds are those for which one instance is busy, or of the database's CPU."""
    poll_s: float
    request_s: float  # one request of an action, on average
    requests: int  # of an action, from the offer to its result
    poll_database_s: float = 0.0
    request_database_s: float = 0.0
    poll_bytes: float = 0.0  # in both directions
    action_bytes: float = 0.0  # in both directions, without the images


@dataclass(frozen=True)
class Scenario:
    groups: tuple[int, ...]  # cameras of each group
    polling_s: float
    upgrade_s: float  # from the request until the new system runs and its trial is decided
    instances: int = 1
    package_bytes: float = 0.0  # of the images, for each camera
    ranges: int = 0  # requests for parts of the images, at most 255, besides the requests of an action
    line_bytes_s: float = float("inf")  # shared by all cameras
    camera_bytes_s: float = float("inf")  # of each camera's line
    success_percent: float = 100.0
    error_percent: float = 50.0
    failing: float = 0.0  # part of the cameras on which the image fails
    failure_s: float = 0.0  # for these, from the request until the old system runs again
    window: tuple[float, float] | None = None  # seconds of the day; None: upgrades are forced
    start_of_day_s: float = 0.0  # time of day at which the rollout begins
    together: int = 1  # requests of an action that are one event, at most
    longest_s: float = 400.0 * DAY  # the simulation ends then in any case

    @property
    def cameras(self) -> int:
        return sum(self.groups)


@dataclass
class Result:
    ended: array  # when the server had the success of a camera, ascending
    seconds: float = 0.0  # until the last result
    requests: float = 0.0
    bytes: float = 0.0
    busiest_requests_s: float = 0.0  # mean of the busiest minute
    busiest_load: float = 0.0  # of each instance in the busiest minute, 1 is saturated
    busiest_database: float = 0.0  # busy processors of the database in the busiest minute
    slowest_s: float = 0.0
    failed_requests: int = 0
    upgraded: int = 0  # cameras that posted the request to their upgrade service
    upgraded_at_stop: int = 0
    stopped_s: float | None = None  # when the error threshold has paused the rollout

    def seconds_until(self, share: float) -> float:
        return self.ended[max(0, round(share * len(self.ended)) - 1)]


class Instances:
    """The server's instances: each answers in order of arrival, and requests go to them in turn."""

    def __init__(self, env: Environment, count: int):
        self.env, self.turn = env, 0
        self.work = [0.0] * count  # seconds of work before the instance is idle, as of `since`
        self.since = [0.0] * count
        self.background = 0.0  # share of each instance that polls take which are not events

    def answer_s(self, service_s: float) -> float:
        """Adds a request that arrives now. Returns the seconds until its answer."""
        at = self.turn = (self.turn + 1) % len(self.work)
        now = self.env.now
        left = self.work[at] - (now - self.since[at]) * (1 - self.background)
        self.since[at] = now
        self.work[at] = service_s + max(left, 0.0)
        return self.work[at]


class Line:
    """A line that all downloads share equally, as TCP connections do, but none is faster than a camera's own line."""

    def __init__(self, env: Environment, bytes_s: float, camera_bytes_s: float):
        self.env, self.bytes_s, self.camera_bytes_s = env, bytes_s, camera_bytes_s
        self.each = 0.0  # bytes that a download which never ends would have received until `since`
        self.since = 0.0
        self.downloads: list[tuple[float, int, Callable[[int], None]]] = []  # heap: value of `each` at the end
        self.timer_at = float("inf")

    def rate(self) -> float:
        return min(self.camera_bytes_s, self.bytes_s / max(len(self.downloads), 1))

    def start(self, size: float, camera: int, done: Callable[[int], None]) -> None:
        if self.rate() == float("inf"):
            done(camera)
            return
        self.advance()
        heapq.heappush(self.downloads, (self.each + size, camera, done))
        self.set_timer()

    def advance(self) -> None:
        now = self.env.now
        if self.downloads:
            self.each += (now - self.since) * self.rate()
        self.since = now

    # A timer that fires too early, because downloads were added, is set again then.
    def set_timer(self) -> None:
        left = max(self.downloads[0][0] - self.each, 0.0) / self.rate()
        if self.env.now + left < self.timer_at:
            self.timer_at = self.env.now + left
            Timeout(self.env, left, self.timer_at).callbacks.append(self.fire)

    def fire(self, timer: Timeout) -> None:
        if timer.value != self.timer_at:
            return  # an earlier one was set after it
        self.timer_at = float("inf")
        self.advance()
        while self.downloads and self.downloads[0][0] <= self.each + 0.01:  # a hundredth of a byte: rounding
            _, camera, done = heapq.heappop(self.downloads)
            done(camera)
        if self.downloads:
            self.set_timer()


class Rollout:
    def __init__(self, scenario: Scenario, costs: Costs, random: Random):
        self.scenario, self.costs, self.random = scenario, costs, random
        self.cameras = sum(scenario.groups)
        self.env = Environment()
        self.instances = Instances(self.env, scenario.instances)
        self.line = Line(self.env, scenario.line_bytes_s, scenario.camera_bytes_s)
        self.result = Result(array("d"))
        self.restart_at = max(costs.requests - REQUESTS_AFTER_RESTART, 1)
        self.download_at = max(self.restart_at - REQUESTS_BEFORE_UPGRADE, 1)
        self.step = bytearray(self.cameras)  # answered requests of the action
        self.ranges = bytearray(self.cameras)  # requested
        self.failures = bytearray(self.cameras)  # failed requests in a row
        self.fails = bytearray(self.cameras)  # whether the image fails on the camera
        self.group_of = array("H")
        for number, size in enumerate(scenario.groups):
            self.group_of.extend([number] * size)
        self.successes, self.errors = [0] * len(scenario.groups), [0] * len(scenario.groups)
        self.reported = self.env.event()  # a camera has reported a result
        self.is_bad = False  # a group has more errors than it may have
        # Cameras with a pending action; of these, those that download, and those that wait for their window.
        self.active = self.downloading = self.waiting = 0
        self.background_since = 0.0
        # Of the polls that are not events: their number a second, busy instances, busy processors of the database.
        self.rates = (0.0, 0.0, 0.0)
        # For each minute: requests, seconds of the instances and of the database that are events, and the largest rates
        # of these that are not.
        self.minutes = defaultdict(lambda: [0.0, 0.0, 0.0])
        self.background = defaultdict(lambda: [0.0, 0.0, 0.0])

    def run(self) -> Result:
        self.change()
        self.env.process(self.schedule())
        result, scenario = self.result, self.scenario
        while self.env.peek() <= scenario.longest_s:
            self.env.step()
        for minute in set(self.minutes) | set(self.background):
            events, rates = self.minutes[minute], self.background[minute]
            requests, busy, database = (event / MINUTE + rate for event, rate in zip(events, rates))
            result.busiest_requests_s = max(result.busiest_requests_s, requests)
            result.busiest_load = max(result.busiest_load, busy / scenario.instances)
            result.busiest_database = max(result.busiest_database, database)
        result.ended = array("d", sorted(result.ended))
        return result

    def schedule(self):
        """The server's scheduler: starts a group when the group before has met its condition; pauses the rollout."""
        scenario, groups = self.scenario, self.scenario.groups
        first = 0
        for number, size in enumerate(groups):
            self.start(first, size)
            first += size
            while True:
                yield self.reported
                self.reported = self.env.event()
                yield self.env.timeout(SCHEDULER_S - self.env.now % SCHEDULER_S)
                if self.is_bad:
                    self.result.stopped_s = self.env.now
                    self.result.upgraded_at_stop = self.result.upgraded
                    return
                if 100 * self.successes[number] >= scenario.success_percent * size:
                    break
                if self.successes[number] + self.errors[number] == size:
                    return  # neither condition can be met any more

    def start(self, first: int, size: int) -> None:
        """Offers the action to the cameras of a group. Each notices it with its next poll, at any moment of its
        interval."""
        for camera in range(first, first + size):
            self.after(self.random.random() * delay_s(self.scenario.polling_s, 0, self.random), self.begin, camera)

    def after(self, seconds: float, call: Callable[[Timeout], None], camera: int) -> None:
        Timeout(self.env, seconds, camera).callbacks.append(call)

    def change(self, active: int = 0, downloading: int = 0, waiting: int = 0) -> None:
        """Counts the polls that are not events until now, then changes how many cameras make them."""
        env, costs, scenario = self.env, self.costs, self.scenario
        seconds = env.now - self.background_since
        self.background_since = env.now
        requests = seconds * self.rates[0]
        self.result.requests += requests
        self.result.bytes += requests * costs.poll_bytes

        self.active += active
        self.downloading += downloading
        self.waiting += waiting
        # A camera that waits for its window also requests the offer. A poll during a download needs no TLS handshake,
        # but is counted as one with it.
        offers = self.waiting / scenario.polling_s
        polls = (self.cameras - self.active) / scenario.polling_s + offers + self.downloading / DOWNLOAD_POLL_S
        self.rates = (polls + offers, polls * costs.poll_s + offers * costs.request_s,
                      polls * costs.poll_database_s + offers * costs.request_database_s)
        self.instances.background = self.rates[1] / scenario.instances
        self.note_background()

    def note_background(self) -> None:
        largest = self.background[int(self.env.now // MINUTE)]
        for at, rate in enumerate(self.rates):
            largest[at] = max(largest[at], rate)

    def begin(self, event: Timeout) -> None:
        self.change(active=1)
        self.send(event)

    def ask(self, requests: int) -> float:
        """Counts requests of an action. Returns the seconds until they are answered."""
        now = int(self.env.now // MINUTE)
        if now not in self.background:
            self.note_background()
        costs, minute = self.costs, self.minutes[now]
        minute[0] += requests
        minute[1] += requests * costs.request_s
        minute[2] += requests * costs.request_database_s
        self.result.requests += requests
        seconds = self.instances.answer_s(requests * costs.request_s)
        self.result.slowest_s = max(self.result.slowest_s, seconds - (requests - 1) * costs.request_s)
        return seconds

    def block(self, camera: int) -> int:
        """Returns how many requests of an action are the next event."""
        step = self.step[camera]
        stop = next(at for at in (self.download_at, self.restart_at, self.costs.requests) if at > step)
        return min(self.scenario.together, stop - step)

    def send(self, event: Timeout) -> None:
        camera = event.value
        seconds = self.ask(self.block(camera))
        if seconds <= STALL_S:
            self.failures[camera] = 0
            self.after(seconds, self.answered, camera)
            return
        # The agent gives up, but the server carries the request out all the same.
        self.failures[camera] = min(self.failures[camera] + 1, 255)
        self.result.failed_requests += 1
        is_idle = self.step[camera] == 0  # the agent does not know of the action
        delay = delay_s(self.scenario.polling_s, self.failures[camera], self.random, is_idle)
        self.after(STALL_S + delay, self.send, camera)

    def answered(self, event: Timeout) -> None:
        camera = event.value
        self.step[camera] += self.block(camera)
        step = self.step[camera]
        if step == self.download_at:
            self.download(event)
        elif step == self.restart_at:
            self.upgrade(event)
        elif step == self.costs.requests:
            self.end(camera)
        else:
            self.send(event)

    def download(self, event: Timeout) -> None:
        """Requests the ranges of a download, and then transfers all bytes."""
        camera = event.value
        requests = min(self.scenario.ranges - self.ranges[camera], self.scenario.together)
        if requests > 0:
            self.ranges[camera] += requests
            self.after(self.ask(requests), self.download, camera)
            return
        self.change(downloading=1)
        self.line.start(self.scenario.package_bytes, camera, self.downloaded)

    def downloaded(self, camera: int) -> None:
        self.change(downloading=-1)
        self.after(0.0, self.send, camera)

    def upgrade(self, event: Timeout) -> None:
        wait = self.until_window()
        if wait > 0:
            self.change(waiting=1)
            self.after(wait, self.opened, event.value)
        else:
            self.post(event)

    def until_window(self) -> float:
        """Returns the seconds until the first poll of a camera inside its window; 0 if it is inside it now."""
        if self.scenario.window is None:
            return 0.0
        begin, end = self.scenario.window
        now = (self.scenario.start_of_day_s + self.env.now) % DAY
        if begin <= now < end:
            return 0.0
        wait = (begin - now) % DAY
        poll = self.random.random() * delay_s(self.scenario.polling_s, 0, self.random)
        while poll >= end - begin:  # no poll in this window
            poll = self.random.random() * delay_s(self.scenario.polling_s, 0, self.random)
            wait += DAY
        return wait + poll

    def opened(self, event: Timeout) -> None:
        self.change(waiting=-1)
        self.post(event)

    def post(self, event: Timeout) -> None:
        camera = event.value
        self.result.upgraded += 1
        self.fails[camera] = self.scenario.failing > 0 and self.random.random() < self.scenario.failing
        seconds = self.scenario.failure_s if self.fails[camera] else self.scenario.upgrade_s
        # Because the camera has just started, the agent delays its first poll.
        self.after(seconds + self.random.random() * part_of_interval_s(self.scenario.polling_s), self.send, camera)

    def end(self, camera: int) -> None:
        self.change(active=-1)
        self.result.seconds = self.env.now
        self.result.bytes += self.costs.action_bytes + self.scenario.package_bytes
        group = self.group_of[camera]
        if self.fails[camera]:
            self.errors[group] += 1
            self.is_bad |= 100 * self.errors[group] > self.scenario.error_percent * self.scenario.groups[group]
        else:
            self.successes[group] += 1
            self.result.ended.append(self.env.now)
        if not self.reported.triggered:
            self.reported.succeed()
