"""Counts what one camera costs the rollout server; started by scripts/bench.

    costs.py BUILD WORK SERVER.jar NGINX POSTGRESQL [--quick]     BUILD: the build folder; WORK: a folder on disk

One instance of the server with PostgreSQL, nginx with TLS in front of it, and one camera at a time: with the agent, and
with swupdate for comparison. --quick: few polls and one action of each.
"""
import json
import os
import signal
import subprocess
import sys
import time
from dataclasses import asdict
from pathlib import Path

import record
from fleet_world import MIB, SCRIPTS, TENANT, Forwarder, OurCamera, Processes, Rig, Swupdate
from pairs import Row, print_head, print_row
from rivals import missing
from cluster import SHORT_START, Database
from server import Proxy, Server

IMAGE = 4  # MiB
# No camera with the first interval polls by itself during a measurement.
LONG_POLL, POLL, SHORT_POLL = "00:30:00", "00:00:05", "00:00:01"
# The server collects the times of the cameras' last polls, for 10 s unless this is set, and writes them together.
# Here each poll is to be counted with its own row.
FLUSH_MS = 100
# Both cameras poll at the same pace, of which swupdate knows only whole seconds: what the server does by itself is
# subtracted, and an error of that must be the same for both.
POLL_SECONDS = 1
# The server's regular work on rollouts and assignments, otherwise every two seconds, takes more than a camera's polls.
REGULAR_WORK = [f"--hawkbit.{work}.scheduler.fixedDelay=3600000" for work in ("rollout", "autoassign")]
SETTLE_SECONDS, QUIET_SECONDS, LONGEST = 0.5, 2, 120
WARM_UP = 1000  # polls: the server compiles its code at run time
TICKS = os.sysconf("SC_CLK_TCK")
COUNT = """
select coalesce(sum(calls), 0), coalesce(sum(rows) filter (where query ~* '^ *(insert|update|delete)'), 0),
       (select count(*) from sp_action_status)
from pg_stat_statements where query !~ 'pg_stat_statements'"""
# Attributes as the agent sends them; swupdate sends none without this.
ATTRIBUTES = 'identify: ( { name = "version"; value = "2.0"; }, { name = "slot"; value = "B"; } );\n'
FIGURES = {"requests": "requests", "sent": "bytes from the camera", "received": "bytes to the camera",
           "handshakes": "TLS handshakes", "full_handshakes": "TLS handshakes with a new session",
           "statuses": "stored statuses", "statements": "SQL statements", "rows": "rows written",
           "server_ms": "CPU time of the server", "database_ms": "CPU time of the database",
           "proxy_ms": "CPU time of nginx"}
# Why the agent may need more than swupdate.
REASONS = {("action", "received"): "manifest and signature are separate files, each with the head of an answer"}
Cost = dict[str, float]


class CountingProxy(Proxy):
    LOG_FORMAT = "$connection_requests$ssl_session_reused $request_uri $request_body"

    def close_idle(self, milliseconds: int) -> None:
        """Starts nginx again, which then closes connections without requests after this time."""
        self.stop()
        head, mark, tail = self.configuration.read_text().partition("    access_log")
        head = head.partition("    keepalive_timeout")[0]
        self.configuration.write_text(f"{head}    keepalive_timeout {milliseconds}ms;\n{mark}{tail}")
        self.start()


class CountingDatabase(Database):
    def __init__(self, postgresql: Path, folder: Path):
        super().__init__(postgresql, SCRIPTS, folder)
        # Without BEGIN, COMMIT and the like.
        self.command += ["-c", "shared_preload_libraries=pg_stat_statements", "-c",
                         "pg_stat_statements.track_utility=off"]
        self.psql = [next(postgresql.glob("usr/lib/postgresql/*/bin/psql")), "-h", "127.0.0.1", "-p", str(self.port),
                     "-U", "fleet", "-XqAt", "-F", " ", "postgres", "-c"]
        self.environment = {"PGPASSWORD": self.password,
                            "LD_LIBRARY_PATH": str(next(postgresql.glob("usr/lib/*/libpq.so.5")).parent)}

    def ask(self, statement: str) -> str:
        """Tries again while the database is still starting, although its port is open."""
        end = time.monotonic() + self.START_SECONDS
        while True:
            done = subprocess.run([*self.psql, statement], capture_output=True, text=True, env=self.environment)
            if done.returncode == 0:
                return done.stdout
            if time.monotonic() > end:
                raise RuntimeError(f"psql: {done.stderr}")
            time.sleep(0.1)


class CountingRig(Rig):
    def __init__(self, work: Path, build: Path, jar: Path, nginx: Path, postgresql: Path):
        self.nginx, self.postgresql = nginx, postgresql
        super().__init__(work, build, jar)
        self.management.set("pollingTime", LONG_POLL)
        self.background = {}

    def start_server(self, jar: Path) -> None:
        self.database = CountingDatabase(self.postgresql, self.work / "database")
        self.database.start()
        self.database.ask("create extension pg_stat_statements")
        self.server = Server(jar, self.work / "server", self.tls, tls=False)
        self.server.command[1:1] = SHORT_START
        self.server.command += [*REGULAR_WORK, f"--hawkbit.server.repository.pollPersistenceFlushTime={FLUSH_MS}"]
        self.database.connect(self.server)
        self.server.start()
        self.line = Forwarder(0)
        self.proxy = CountingProxy(self.nginx, SCRIPTS, [self.server], self.work / "proxy", self.tls, False,
                                   self.line.port)
        self.line.target, self.url = self.proxy.port, self.proxy.url
        self.proxy.start()

    def requests(self) -> list[str]:
        return self.proxy.requests.read_text().splitlines() if self.proxy.requests.exists() else []

    def counts(self) -> Cost:
        requests = self.requests()
        statements, rows, statuses = map(int, self.database.ask(COUNT).split())
        return {"requests": len(requests), "sent": self.line.sent, "received": self.line.count,
                "handshakes": self.line.connections,
                "full_handshakes": sum(line.startswith("1. ") for line in requests),
                "statuses": statuses, "statements": statements, "rows": rows}

    def times(self) -> Cost:
        return {"server_ms": cpu_ms([Path(f"/proc/{self.server.process.pid}")]),
                "database_ms": cpu_ms(Processes(self.database.process.pid).each()),
                "proxy_ms": cpu_ms(Processes(self.proxy.process.pid).each()), "seconds": time.monotonic()}

    def cost(self, work) -> Cost:
        """Returns what `work` costs, without the server's own work in the background, as far as that is known."""
        # psql must not count as work of the database, so it runs before the first and after the last look at the times.
        before = {**self.counts(), **self.times()}
        work()
        time.sleep(SETTLE_SECONDS)
        after = {**self.times(), **self.counts()}
        taken = {name: value - before[name] for name, value in after.items()}
        return {name: value - self.background.get(name, 0) * taken["seconds"] for name, value in taken.items()}

    def measure_background(self, seconds: float) -> None:
        taken = self.cost(lambda: time.sleep(seconds))
        if taken["requests"]:
            raise RuntimeError("a camera polls while the server should have no requests")
        self.background = {name: value / taken["seconds"] for name, value in taken.items() if name != "seconds"}

    def wait_for(self, text: str, since: int, count: int = 1) -> None:
        """Waits until so many requests with this text have arrived after the first `since` requests."""
        end = time.monotonic() + LONGEST
        while sum(text in request for request in self.requests()[since:]) < count:
            if time.monotonic() > end:
                raise RuntimeError(f"no request with {text}, see {self.proxy.requests}")
            time.sleep(0.02)

    def wait_until_quiet(self) -> None:
        count, since = -1, 0.0
        while time.monotonic() - since < QUIET_SECONDS:
            if len(self.requests()) != count:
                count, since = len(self.requests()), time.monotonic()
            time.sleep(0.05)

    def close(self) -> None:
        self.proxy.stop()
        self.server.stop()
        self.database.stop()
        super().close()


def cpu_ms(processes: list[Path]) -> float:
    """Returns the CPU time of the processes, and of their children that have ended."""
    total = 0.0
    for process in processes:
        try:
            ticks = [int(field) for field in (process / "stat").read_text().rpartition(")")[2].split()[11:15]]
            own = sum(ticks[:2]) * 1000 / TICKS
            # A poll takes less than a tick of 10 ms. The scheduler counts nanoseconds, but for each thread alone.
            if len(list((process / "task").iterdir())) == 1:
                own = int((process / "schedstat").read_text().split()[0]) / 1e6
            total += own + sum(ticks[2:]) * 1000 / TICKS
        except OSError:
            pass  # it has ended, and its parent has its time
    return total


class Ours:
    """Between two polls the sleeper takes the agent's place; SIGHUP ends the sleep."""

    def __init__(self, rig: CountingRig, build: Path):
        self.rig, self.camera = rig, OurCamera(rig, "ours", build, IMAGE)

    def start(self) -> None:
        before, end = len(self.rig.requests()), time.monotonic() + LONGEST
        self.camera.start()
        while len(self.rig.requests()) == before and time.monotonic() < end:
            time.sleep(1)
            if "the camera has just started" in (self.camera.camera.folder / "agent.txt").read_text():
                self.wake()
        self.rig.wait_until_quiet()
        self.wait_asleep()

    def wake(self) -> None:
        """Ends the sleep, or the wait for the first poll after a start of this machine."""
        for process in self.camera.processes().each("corvo_agent"):
            os.kill(int(process.name), signal.SIGHUP)

    def stop(self) -> None:
        self.camera.camera.kill()

    def wait_asleep(self) -> None:
        end = time.monotonic() + LONGEST
        while time.monotonic() < end and not self.camera.camera.fault:
            self.camera.camera.update()
            try:
                for process in self.camera.processes().each("corvo_agent"):
                    if os.readlink(process / "exe").endswith("corvo_agent_sleeper"):
                        return
            except (OSError, ValueError):
                pass  # the camera restarts
            time.sleep(0.02)
        raise RuntimeError(f"the agent does not sleep {self.camera.camera.fault}")

    def poll(self, count: int) -> None:
        for _ in range(count):
            self.wait_asleep()
            before, began = len(self.rig.requests()), time.monotonic()
            self.wake()
            self.rig.wait_for("/ours ", before)
            time.sleep(max(0.0, began + POLL_SECONDS - time.monotonic()))

    def offer(self) -> None:
        self.start()
        self.rig.offer("signed", self.rig.signed_package(IMAGE), "ours")

    def upgrade(self) -> None:
        before = len(self.rig.requests())
        self.poll(1)
        end = time.monotonic() + LONGEST
        while not any("closed" in request for request in self.rig.requests()[before:]):
            self.camera.camera.update()
            if self.camera.camera.fault or time.monotonic() > end:
                raise RuntimeError(f"the agent does not end the action {self.camera.camera.fault}")
            time.sleep(0.1)
        self.rig.wait_until_quiet()


class Other:
    """swupdate polls at the server's interval."""

    def __init__(self, rig: CountingRig):
        self.rig = rig
        self.camera = Swupdate(rig, "swupdate", rig.signed_package(IMAGE)[0], IMAGE, ATTRIBUTES)

    def start(self, interval: str = SHORT_POLL) -> None:
        self.rig.management.set("pollingTime", interval)
        before = len(self.rig.requests())
        self.camera.start()
        # Only what follows its first polls and its attributes is measured.
        self.rig.wait_for("/swupdate ", before, 3)

    def end_process(self) -> None:
        """Waits for all of its processes, so that none still uses the files of the next start."""
        processes = self.camera.processes()
        self.camera.stop()
        while processes.each():
            time.sleep(0.01)

    def stop(self) -> None:
        self.end_process()
        self.rig.management.set("pollingTime", LONG_POLL)

    def poll(self, count: int) -> None:
        self.rig.wait_for("/swupdate ", len(self.rig.requests()), count)

    def offer(self) -> None:
        self.camera.installed.unlink(missing_ok=True)
        self.start(POLL)
        self.rig.offer("swu", [self.camera.package], "swupdate")

    def upgrade(self) -> None:
        end = time.monotonic() + LONGEST
        while not self.camera.installed.exists():
            if self.camera.process.poll() is not None or time.monotonic() > end:
                output = (self.camera.folder / "output.txt").read_text(errors="replace")
                raise RuntimeError(f"swupdate has not installed it: {output[-500:]}")
            time.sleep(0.05)
        self.rig.wait_until_quiet()
        self.end_process()
        before = len(self.rig.requests())
        self.camera.start("-c", "2")
        self.rig.wait_for("configData", before)
        self.rig.wait_until_quiet()


def measure_polls(rig: CountingRig, camera, count: int) -> Cost:
    camera.start()
    # Real intervals are longer than nginx keeps a connection.
    rig.proxy.close_idle(500)
    taken = rig.cost(lambda: camera.poll(count))
    camera.stop()
    return {name: value / taken["requests"] for name, value in taken.items()}


def measure_action(rig: CountingRig, camera) -> Cost:
    camera.offer()
    taken = rig.cost(camera.upgrade)
    camera.stop()
    taken["received"] -= IMAGE * MIB
    return taken


def mean(taken: list[Cost]) -> Cost:
    return {name: sum(one[name] for one in taken) / len(taken) for name in taken[0]}


def rows_of(what: str, ours: Cost, other: Cost | None, quick: bool) -> list[Row]:
    found = []
    for name, figure in FIGURES.items():
        is_time = name.endswith("_ms")
        unit = "ms" if is_time else "B" if name in ("sent", "received") else ""
        mine, theirs = round(ours[name], 1), round(other[name], 1) if other else 0
        goal = 1 if theirs > 0 else 0
        found.append(Row(f"{what}: {figure}" + (" / swupdate" if other else ""), f"{mine:g} {unit}",
                         f"{theirs:g} {unit}" if other else "", mine / theirs if goal else mine,
                         # A few polls take too little time for a comparison.
                         None if not other or (quick and is_time) else goal,
                         unit="" if goal else unit or "more", counted=not is_time,
                         note=REASONS.get((what, name), "")))
    return found


def main() -> int:
    build, work, jar, nginx, postgresql = (Path(argument).resolve() for argument in sys.argv[1:6])
    quick = "--quick" in sys.argv
    polls, actions, rest = (5, 1, 3) if quick else (100, 4, 60)
    about = record.machine()
    print("\n".join(about))
    rig = CountingRig(work, build, jar, nginx, postgresql)
    try:
        cameras = {"agent": Ours(rig, build)}
        if not missing("swupdate", "openssl", "cpio"):
            cameras["swupdate"] = Other(rig)
        for camera in () if quick else cameras.values():
            measure_action(rig, camera)
        for _ in range(0 if quick else WARM_UP):
            rig.ask("ours", f"{rig.url}/{TENANT}/ours")
        rig.measure_background(rest)
        costs: dict[str, dict[str, Cost]] = {
            name: {"poll": measure_polls(rig, camera, polls)} for name, camera in cameras.items()}
        rig.proxy.close_idle(75000)
        taken: dict[str, list[Cost]] = {name: [] for name in cameras}
        for _ in range(actions):
            for name, camera in cameras.items():
                taken[name].append(measure_action(rig, camera))
        for name, found in taken.items():
            costs[name]["action"] = mean(found)
    finally:
        rig.close()
    rows = [row for what in ("poll", "action")
            for row in rows_of(what, costs["agent"][what], costs.get("swupdate", {}).get(what), quick)]
    print_head(sys.stdout)
    for row in rows:
        print_row(row, sys.stdout)
    if not quick:
        (work / "costs.json").write_text(json.dumps(
            {"machine": about, "of": "costs", "measured": {"costs": costs},
             "rows": [{**asdict(row), "verdict": row.verdict()} for row in rows]}, indent=1))
    return 1 if any(row.verdict() == "NO" and not row.note for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
