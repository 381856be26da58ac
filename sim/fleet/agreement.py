"""Checks that the state of a camera at the server, the state that the camera reports and the content of its
partitions agree."""
import hashlib
import math
import re
from dataclasses import dataclass, replace

from camera import OLD_VERSION, STOPPING, SWITCHED, Camera
from management import Management
from package import IMAGES, NEW_VERSION, NEXT_VERSION, Package


@dataclass(frozen=True)
class End:
    """The expected state of a camera after the rollout."""

    at_server: tuple[str, ...]  # allowed values of the target's status
    slot: str
    version: str
    outcome: str  # result of the last action in the agent's status
    record: str  # outcome in the record of the service
    written: bool  # True: the partitions contain the images; False: they are unchanged
    reason: str = ""  # a part of what the server must have been told


UPGRADED = End(("in_sync",), "B", NEW_VERSION, "success", "succeeded", True)
UPGRADED_AGAIN = replace(UPGRADED, slot="A", version=NEXT_VERSION)
REFUSED = End(("error",), "A", OLD_VERSION, "failure", "none", False)
# The new system was started, and given up.
GIVEN_UP = End(("error",), "A", OLD_VERSION, "failure", "succeeded", True,
               'slot B was given up: health command "health_check": status 1: no picture')
UNTOUCHED = End(("registered", "unknown"), "A", OLD_VERSION, "none", "none", False)

RECORD = re.compile(r"result: 1\b.*succeeded"), re.compile(r"result: 2\b")


def recorded(text: str) -> str:
    """Returns the outcome from the output of `otactl record`."""
    succeeded, failed = RECORD
    return "succeeded" if succeeded.search(text) else "failed" if failed.search(text) else "none"


def remembered(agent: dict) -> str:
    """Returns the result of the last action from the output of `corvo_agent status`. Whether the server has
    received that result is checked at the server: if its answer was lost, the agent does not know."""
    last = agent.get("last")
    return "none" if not last else "success" if last["succeeded"] else "failure"


HEAD = (f"  {'':<5}  {'':<10}  {'server':<28}  {'camera':<38}  partitions\n"
        f"  {'':<5}  {'camera':<10}  {'status':<12}{'version':<8} {'slot':<7}"
        f"  {'outcome':<11}{'record':<11}{'version':<8} {'slot':<7}")


class Judge:
    def __init__(self, management: Management, package: Package, rollouts: int = 1):
        """`rollouts`: the number of rollouts to these cameras so far, with this one. Each writes the other slot."""
        self.management, self.rollouts = management, rollouts
        self.images = {name: (hashlib.sha256(package.images[name].read_bytes()).hexdigest(), size)
                       for name, size in IMAGES.items()}
        self.before: dict[str, dict[str, str]] = {}
        self.wrong: list[str] = []

    def remember(self, camera: Camera) -> None:
        self.before[camera.name] = {partition: camera.digest(partition)
                                    for name in IMAGES for partition in camera.copies(name)}

    def row(self, camera: Camera, end: End) -> str:
        """Returns a line of the table; adds each difference to the list `wrong` too."""
        target = self.management.call("GET", f"targets/{camera.name}")
        attributes = self.management.attributes(camera.name)
        state = camera.state()
        record, outcome = recorded(state.get("record", "")), remembered(state["agent"])
        checks = [
            ("the server's status", target["updateStatus"] in end.at_server, target["updateStatus"]),
            ("version at the server", attributes.get("version") == end.version, attributes.get("version")),
            ("slot at the server", attributes.get("slot") == end.slot, attributes.get("slot")),
            ("version", state.get("version") == end.version, state.get("version")),
            ("slot", state.get("slot") == end.slot, state.get("slot")),
            ("outcome", outcome == end.outcome, outcome),
            ("pending action", state["agent"].get("action") is None, state["agent"].get("action")),
            ("record", record == end.record, record),
            ("files left", state.get("files") == "0", state.get("files")),
        ]
        # A request is repeated only after a power cut, and never when the slot has been switched.
        steps = [stage for _, stage in camera.changes if stage in (STOPPING, SWITCHED)]
        flashed = steps.count(STOPPING)
        checks += [("number of requests that the service began", flashed <= 1 + camera.cuts, flashed),
                   ("the order of requests and slot switches", STOPPING not in steps[steps.index(SWITCHED):]
                    if SWITCHED in steps else True, steps)]
        if camera.doubled:
            commit = state["commit"]
            decided = commit.get("state"), commit.get("committed")
            checks.append(("decision", decided == ("committed", end.slot), commit))
        if end.reason:
            action = self.management.actions(camera.name)[0]
            messages = [text for status in self.management.statuses(camera.name, action["id"])
                        for text in status["messages"]]
            checks.append(("the reason at the server", any(end.reason in text for text in messages), messages))
        shown = []
        for name, (image, size) in self.images.items():
            *kept, written = camera.copies(name) if self.rollouts % 2 else reversed(camera.copies(name))
            whole = camera.digest(written)
            same = (camera.digest(written, size) == image) if end.written else (
                whole == self.before[camera.name][written])
            checks.append((f"partition {written}", same, whole[:16]))
            checks += [(f"partition {copy} of the slot that ran before", digest == self.before[camera.name][copy], digest)
                       for copy in kept for digest in [camera.digest(copy)]]
            shown.append(f"{written} {camera.digest(written, size)[:8]}"
                         f"{' image' if end.written and same else ' as before' if same else ' ?'}")
        bad = [f"{camera.name}: {what} is {got}" for what, right, got in checks if not right]
        self.wrong += bad
        return (f"  {'WRONG' if bad else 'ok':<5}  {camera.name:<10}  {target['updateStatus']:<12}"
                f"{attributes.get('version', '-'):<8} {attributes.get('slot', '-'):<7}  "
                f"{outcome:<11}{record:<11}{state.get('version', '-'):<8} "
                f"{state.get('slot', '-'):<7}  {', '.join(shown)}")

    def check_order(self, cameras: list[Camera]) -> None:
        """Checks at the server that each camera has one action of each rollout, and that a group was started only after each
        action of the groups before had succeeded."""
        ended = 0.0  # when the groups before the present one had succeeded, in the server's milliseconds
        for number in sorted({camera.group for camera in cameras}):
            group = [camera for camera in cameras if camera.group == number]
            ends = [ended]
            for camera in group:
                actions = self.management.actions(camera.name)
                if len(actions) != self.rollouts:
                    self.wrong.append(f"{camera.name}: number of its actions is {len(actions)}")
                statuses = [status for status in self.management.statuses(camera.name, actions[0]["id"])
                            if status["type"] != "scheduled"] if actions else []
                if any(status["reportedAt"] < ended for status in statuses):
                    self.wrong.append(f"{camera.name}: its group {number} was started too early")
                ends.append(max((status["reportedAt"] for status in statuses
                                 if status["type"] == "finished"), default=math.inf))
            ended = max(ends)
