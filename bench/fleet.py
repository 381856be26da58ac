"""Measures the agent with a real rollout server on this machine; started by scripts/bench.

    fleet.py BUILD WORK SERVER.jar     BUILD: the build folder; WORK: a folder on disk

The server runs on the same processors, so its load affects the agent and swupdate alike.
"""
import json
import re
import statistics
import subprocess
import sys
import time
from dataclasses import asdict
from pathlib import Path

import record
from fleet_world import MIB, Forwarder, OurCamera, Rig, Swupdate
from pairs import Row, in_kib, in_seconds, plain_row, print_head, print_row, run_rounds
from rivals import missing

LARGE, MIDDLE, SMALL = 256, 64, 16  # MiB
QUIET_POLL, QUIET_SECONDS = "00:01:00", 45
BUSY_POLL = "00:00:01"
POLLS = 3000
PAUSES = 8.0  # seconds: the fixed pauses of the service in each upgrade, 2, 5 and 1 s


# --- idle -----------------------------------------------------------------------------------------

def quiet(rig: Rig, camera) -> tuple[int, float]:
    """Returns memory in KiB and context switches per minute between two polls."""
    rig.management.set("pollingTime", QUIET_POLL)
    camera.start()
    before = 0
    # The first answer sets the polling interval, so the measurement begins after the second poll.
    while not rig.last_poll(camera.name):
        time.sleep(0.2)
    time.sleep(10)
    before = rig.last_poll(camera.name)
    while rig.last_poll(camera.name) == before:
        time.sleep(0.2)
    time.sleep(3)
    processes = camera.processes()
    memory, switches = processes.memory(), processes.switches()
    time.sleep(QUIET_SECONDS)
    return memory, (processes.switches() - switches) * 60 / QUIET_SECONDS


def idle_rows(rig: Rig, ours: OurCamera, other: Swupdate | None) -> list[Row]:
    memory, switches = quiet(rig, ours)
    if other is None:
        return [Row("idle: memory of all processes", value=round(memory / 1024, 2), unit="MiB",
                    counted=True),
                Row("idle: context switches a minute between polls", value=round(switches), goal=0,
                    unit="times", counted=True)]
    other_memory, other_switches = quiet(rig, other)
    other.stop()
    return [Row("idle: memory of all processes / swupdate", in_kib(memory), in_kib(other_memory),
                memory / other_memory, 0.5, counted=True, note="proportional"),
            Row("idle: context switches a minute between polls", f"{switches:.0f}",
                f"{other_switches:.0f}", round(switches), 0, unit="times", counted=True)]


# --- a whole action -------------------------------------------------------------------------------

def action_rows(rig: Rig, ours: OurCamera, other: Swupdate | None) -> list[Row]:
    rig.management.set("pollingTime", BUSY_POLL)
    ours.camera.kill()
    ours.start()

    def by_us() -> dict[str, float]:
        taken = ours.upgrade(MIDDLE)
        return {**taken, "work": taken["wall"] - PAUSES}

    def by_other() -> dict[str, float]:
        other.stop()
        other.start(poll=1)
        time.sleep(2)
        taken = other.upgrade(MIDDLE)
        return {**taken, "work": taken["wall"]}

    what = f"{MIDDLE} MiB, offer to verdict"
    if other is None:
        return [Row(what, value=round(by_us()["wall"], 2), unit="s")]
    rounds = run_rounds({"ours": by_us, "swupdate": by_other}, "work", seconds=120, most=12)
    return [rounds.row(f"{what}, less the pauses / swupdate", "ours", "swupdate", "work", in_seconds,
                       1.0),
            rounds.row(f"{what}, with the service's 8 s of pauses / swupdate", "ours", "swupdate",
                       "wall", in_seconds),
            rounds.row(f"{MIDDLE} MiB: peak memory of all processes / swupdate", "ours", "swupdate",
                       "peak", in_kib, 0.5)]


# --- the download ---------------------------------------------------------------------------------

class Download:
    """Packages that the agent, or curl, only downloads and verifies."""

    def __init__(self, rig: Rig, camera: OurCamera):
        self.rig, self.camera, self.mib, self.offered = rig, camera, LARGE, False

    def offer(self) -> None:
        """Creates an action, unless the last one is still open: curl does not finish its action."""
        if not self.offered:
            self.rig.offer(f"signed-{self.mib}", self.rig.signed_package(self.mib),
                           self.camera.name, "downloadonly")
        self.offered = True

    def agent(self) -> dict[str, float]:
        self.offer()
        self.offered = False
        return self.camera.taken_once()

    def measured(self, *command) -> dict[str, float]:
        result = self.rig.work / "taken"
        subprocess.run([self.rig.build / "bench/measure", result, *command], check=True,
                       stdout=subprocess.DEVNULL, env={"PATH": "/usr/bin:/bin"})
        return json.loads(result.read_text())

    def curl_command(self) -> list:
        self.offer()
        return ["curl", "-sS", "--fail", "--cacert", self.rig.ca, "-H",
                f"Authorization: {self.rig.authorization(self.camera.name)}",
                self.rig.links(self.camera.name)["kernel.bin"]]

    def curl(self) -> dict[str, float]:
        return self.measured(*self.curl_command(), "-o", self.rig.work / "fetched")

    def curl_and_hash(self) -> dict[str, float]:
        return self.measured("sh", "-c", '"$@" | openssl dgst -sha256', "sh", *self.curl_command())

    def rows(self) -> list[Row]:
        self.agent()  # warm-up: the server compiles its code at run time
        rounds = run_rounds({"agent": self.agent, "hash": self.curl_and_hash, "curl": self.curl},
                            "cpu", seconds=60, most=12)
        self.agent()
        self.mib = SMALL
        large, curl = ([round["peak"] for round in rounds.taken[thing]] for thing in ("agent", "curl"))
        small = [self.agent()["peak"] for _ in large]
        what = f"{LARGE} MiB downloaded and verified"
        return [plain_row(f"{what}: peak memory above curl -o", [(a - b) / 1024 for a, b in zip(large, curl)],
                          2, "MiB", 2, ours=in_kib(statistics.median(large)),
                          baseline=in_kib(statistics.median(curl)), counted=True),
                plain_row(f"{SMALL}, {LARGE} MiB downloaded: peak memory grows by",
                          [a - b for a, b in zip(large, small)], 128, "KiB", counted=True),
                rounds.row(f"{what}: CPU time / curl | openssl dgst", "agent", "hash", "cpu",
                           in_seconds, 1.3)]


def fetched_twice(rig: Rig, build: Path) -> Row:
    """Kills the agent after 64 MiB, and starts it again. Returns how many bytes more than without the
    interruption the server sends."""
    forwarder = Forwarder(rig.server.port)
    camera = OurCamera(rig, "interrupted", build, LARGE, f"https://127.0.0.1:{forwarder.port}")

    def fetch(cut_at: int) -> int:
        rig.offer(f"signed-{LARGE}", rig.signed_package(LARGE), camera.name, "downloadonly")
        camera.forget_package()
        forwarder.count, forwarder.limit = 0, cut_at
        forwarder.reached.clear()
        run = camera.once()
        if cut_at:
            if not forwarder.reached.wait(300):
                raise RuntimeError("the agent does not download")
            run.kill()
            run.wait()
            time.sleep(1)
            run = camera.once()
        _, errors = run.communicate()
        if run.returncode != 0:
            raise RuntimeError(f"corvo_agent once: {run.returncode}, {errors.decode()}")
        return forwarder.count

    whole = fetch(0)
    cut = fetch(MIDDLE * MIB)
    camera.close()
    return Row(f"{LARGE} MiB, killed at {MIDDLE} MiB: fetched twice", f"{cut / MIB:.2f} MiB",
               f"{whole / MIB:.2f} MiB", round((cut - whole) / MIB, 2), 4, unit="MiB", counted=True,
               note="bytes sent by the server; data in transit and not yet flushed is lost")


# --- size, and the server -------------------------------------------------------------------------

def size_rows(build: Path, work: Path) -> list[Row]:
    stripped = work / "stripped"
    subprocess.run(["strip", "-o", stripped, build / "corvo_agent"], check=True)
    needed = re.findall(r"\(NEEDED\).*\[(\S+)\]", subprocess.run(
        ["readelf", "-d", stripped], check=True, text=True, capture_output=True).stdout)
    loaded = subprocess.run(["ldd", stripped], text=True, capture_output=True).stdout.count("=>")
    size = stripped.stat().st_size / 1000
    stripped.unlink()
    return [Row("size of the agent, stripped", value=round(size), unit="KB", counted=True),
            Row("shared libraries of the agent", value=loaded, unit="libraries", counted=True,
                note=f"linked with {', '.join(needed)}")]


def poll_rows(rig: Rig) -> list[Row]:
    """Measures how many polls one server answers here; client and server share the processors."""
    if lacking := missing("ab"):
        return [Row("polls a second that one server answers", note=lacking)]
    rig.add_target("asking")

    def rate(*more: str) -> float:
        output = subprocess.run(["ab", "-q", "-c", "8", "-n", str(POLLS), *more, "-H",
                               f"Authorization: {rig.authorization('asking')}",
                               f"{rig.url}/DEFAULT/controller/v1/asking"], check=True, text=True,
                              capture_output=True).stdout
        if re.search(r"Non-2xx responses", output):
            raise RuntimeError("the server refuses polls")
        return float(re.search(r"Requests per second:\s+([\d.]+)", output)[1])

    rate("-k")  # warm-up: the server compiles its code at run time
    return [Row("polls a second that one server answers, connections kept", value=round(rate("-k")),
                unit="polls/s"),
            Row("polls a second that one server answers, each with a TLS handshake",
                value=round(rate()), unit="polls/s")]


def main() -> int:
    build, work, jar = (Path(argument).resolve() for argument in sys.argv[1:4])
    rows: list[Row] = []

    def show(row: Row) -> None:
        rows.append(row)
        print_row(row, sys.stdout)

    about = record.machine()
    print("\n".join(about))
    rig = Rig(work, build, jar)
    lacking = missing("swupdate", "openssl", "cpio")
    try:
        print_head(sys.stdout)
        for row in size_rows(build, rig.work):
            show(row)
        ours = OurCamera(rig, "ours", build, MIDDLE)
        image = rig.signed_package(MIDDLE)[0]
        other = None if lacking else Swupdate(rig, "swupdate", image, MIDDLE)
        for row in idle_rows(rig, ours, other) + action_rows(rig, ours, other):
            show(row)
        ours.close()
        if other is not None:
            other.close()
        fetching = OurCamera(rig, "fetching", build, LARGE)
        for row in Download(rig, fetching).rows():
            show(row)
        fetching.close()
        show(fetched_twice(rig, build))
        for row in poll_rows(rig):
            show(row)
    finally:
        rig.close()
    (work / "fleet.json").write_text(json.dumps(
        {"machine": about, "rows": [{**asdict(row), "verdict": row.verdict()} for row in rows]},
        indent=1))
    return 1 if any(row.verdict() == "NO" for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
