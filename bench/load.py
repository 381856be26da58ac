"""Measures the rollout server under the load of many cameras, which one program simulates (load_generator.cpp);
started by scripts/bench.

    load.py BUILD WORK SERVER.jar NGINX POSTGRESQL [--quick | --only CAMERAS INSTANCES KIND]

The database, the instances, nginx and the generator share the processors of this machine.
"""
import argparse
import contextlib
import json
import os
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

import record

CHECKOUT = Path(__file__).resolve().parents[1]
sys.path.append(str(CHECKOUT / "sim/fleet"))

from certificates import Authority  # noqa: E402
from cluster import SHORT_START, Cluster  # noqa: E402
from management import Refused  # noqa: E402
from server import DIES_WITH_PARENT  # noqa: E402

SEED = 1
# Seconds, and the groups of a rollout. With this interval, the polls of 10,000 cameras use a quarter to a third of what
# one instance answers on the project's machine, and a rollout most of the rest.
# Java compiles its code during the first minute and a half.
FULL = {"interval": 120, "upgrade": 10, "downs": (300, 0), "groups": 10, "warm": 90, "saturated": 20}
QUICK = {"interval": 2, "upgrade": 1, "downs": (6,), "groups": 3, "warm": 3, "saturated": 3}
PLAN = ((1000, 1, "rollout"), (10000, 1, "rollout+power+unspread"), (1000, 2, "rollout"), (10000, 2, "rollout"))
QUICK_PLAN = ((50, 1, "rollout+power"),)
BATCH = 250  # targets that are created with one request
FILES = {"kernel.bin": 65536, "package.manifest": 1200, "package.manifest.sig": 2400}  # bytes; nobody reads them
CAPACITY_CAMERAS, CAPACITY_WORKERS = 200, 32
LATE_SECONDS = 15  # after two intervals, in which each camera must have been answered
MOST_SECONDS = 7200  # of one run of the generator
WATCH_SECONDS = 5
MOST_GROWTH = 20  # percent, of the costs of a camera from 1,000 cameras to more
MOST_ERRORS = 50  # percent of a group; no camera may fail
TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(stat: Path) -> float:
    """Returns the CPU time of a process and of its ended children."""
    fields = stat.read_text().rpartition(")")[2].split()
    return sum(map(int, fields[11:15])) / TICKS


def contained_cpu_seconds(process: int) -> float:
    """Returns the CPU time of all processes in the private root that this process has created."""
    (inside,) = Path(f"/proc/{process}/task/{process}/children").read_text().split()
    space, total = os.readlink(f"/proc/{inside}/ns/pid"), 0.0
    for entry in Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(entry / "ns/pid") == space:
                total += cpu_seconds(entry / "stat")
        except OSError:
            pass  # the process has ended
    return total


class Site:
    """A data centre with a fresh database, `instances` instances and `cameras` targets."""

    def __init__(self, options: argparse.Namespace, cameras: int, instances: int):
        self.options, self.cameras = options, cameras
        self.folder: Path = options.work / "load"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        self.generator = options.build / "bench/load_generator"
        self.tls = Authority(self.folder / "tls", "authority")
        self.cluster = Cluster(options, self.folder / "cluster", CHECKOUT / "scripts", self.tls, instances)
        for server in self.cluster.instances:
            for option in SHORT_START:
                server.command.remove(option)
            # All cameras have the same address here, so that the filter would take them for one.
            server.command.append("--hawkbit.server.security.dos.filter.enabled=false")
        self.rollouts = 0

    def start(self) -> None:
        self.cluster.start()
        self.management = self.cluster.management(self.tls.certificate)
        self.management.set("authentication.targettoken.enabled", True)
        self.set_interval(self.options.interval)
        lines = subprocess.run([self.generator, "--list", "--cameras", str(self.cameras), "--seed", str(SEED)],
                               check=True, capture_output=True, text=True).stdout.splitlines()
        for first in range(0, len(lines), BATCH):
            self.management.create_targets(dict(line.split() for line in lines[first:first + BATCH]))
        files = []
        for name, size in FILES.items():
            files.append(self.folder / name)
            files[-1].write_bytes(os.urandom(size))
        self.module = self.management.create_module("load", "2.0", files)

    def close(self) -> None:
        self.cluster.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def set_interval(self, seconds: int) -> None:
        self.management.set("pollingTime", f"00:{seconds // 60:02}:{seconds % 60:02}")

    def launch(self, seconds: int, cameras: int = 0, *more) -> subprocess.Popen:
        return subprocess.Popen(
            [*DIES_WITH_PARENT, self.generator, "--server", self.cluster.proxy.url, "--ca", self.tls.certificate, "--seed", str(SEED),
             "--cameras", str(cameras or self.cameras), "--seconds", str(seconds), *map(str, more)],
            stdout=subprocess.PIPE, text=True)

    @staticmethod
    def result(generator: subprocess.Popen) -> dict:
        output, _ = generator.communicate()
        if generator.returncode != 0:
            raise OSError(f"load_generator ends with status {generator.returncode}")
        return json.loads(output)

    def capacity(self) -> float:
        """Returns the polls a second that the site answers, each with a TLS handshake."""
        options = ("--saturate", "--workers", CAPACITY_WORKERS)
        for seconds in (self.options.warm, self.options.saturated):
            taken = self.result(self.launch(seconds, min(CAPACITY_CAMERAS, self.cameras), *options))
        if taken["errors"]:
            raise OSError(f"polls fail at saturation: {taken['errors']}")
        return taken["requests"] / taken["seconds"]

    def make_rollout(self, query: str, groups: int) -> int:
        self.rollouts += 1
        name = f"load-{self.rollouts}"
        made = self.management.create_set(name, "2.0", self.module)
        rollout = self.management.create_rollout(name, made, f"controllerId=={query}", groups, MOST_ERRORS)
        self.wait_for(rollout, "ready", 300)
        return rollout

    def wait_for(self, rollout: int, status: str, seconds: float) -> None:
        until = time.monotonic() + seconds
        while (now := self.management.rollout_status(rollout)) != status:
            if time.monotonic() > until:
                raise OSError(f"the rollout is \"{now}\" and not \"{status}\" after {seconds:.0f} s")
            time.sleep(0.5)

    def used(self) -> dict[str, float]:
        """Returns CPU times, and the size of the tables and indexes in bytes."""
        cluster = self.cluster
        return {"server_cpu_seconds": sum(cpu_seconds(Path(f"/proc/{server.process.pid}/stat"))
                                          for server in cluster.instances),
                "database_cpu_seconds": contained_cpu_seconds(cluster.database.process.pid),
                "proxy_cpu_seconds": contained_cpu_seconds(cluster.proxy.process.pid),
                "database_bytes": sum(file.stat().st_size
                                      for file in (cluster.database.folder / "data/base").rglob("*") if file.is_file())}

    # --- a rollout ---

    def watch_groups(self, rollout: int, generator: subprocess.Popen) -> int:
        """Returns when the generator ends: the most groups that were running at the same time."""
        at_once = 0
        while generator.poll() is None:
            at_once = max(at_once, sum(group["status"] == "running" for group in self.management.groups(rollout)))
            with contextlib.suppress(subprocess.TimeoutExpired):
                generator.wait(WATCH_SECONDS)
        return at_once

    def roll_out(self) -> dict:
        options, groups = self.options, self.options.groups
        rollout = self.make_rollout("load-*", groups)
        before = self.used()
        generator = self.launch(MOST_SECONDS, 0, "--start-within", options.interval, "--upgrade-seconds",
                                options.upgrade, "--done", self.cameras)
        self.management.start_rollout(rollout)
        at_once = self.watch_groups(rollout, generator)
        taken = self.result(generator)
        after = self.used()
        self.wait_for(rollout, "finished", 60)
        return {"cameras": self.cameras, "instances": len(self.cluster.instances), "groups": groups,
                "polling_seconds": options.interval, "upgrade_seconds": options.upgrade,
                "seconds": round(taken["seconds"], 1), "requests": taken["requests"],
                **{name: round(after[name] - before[name], 2) for name in after},
                "groups_at_once": at_once, "slowest_ms": taken["slowest_ms"], "errors": sum(taken["errors"].values()),
                "error_kinds": taken["errors"], "done": taken["done"], "latest_ms": taken["latest_ms"],
                "generator_cpu_seconds": round(taken["cpu_seconds"], 1), "generator_peak_kib": taken["peak_kib"]}

    # --- power returns to all cameras ---

    def fail_power(self, down: int, *more) -> dict:
        """All cameras lose their power while a tenth of them are being upgraded, and start again in the same
        second. The server returns `down` seconds later."""
        options, interval = self.options, self.options.interval
        digits = max(1, len(str(self.cameras)) - 2)
        offered = min(10 ** digits - 1, self.cameras)
        rollout = self.make_rollout(f"load-{'0' * (6 - digits)}*", 1)
        # The server takes its time until it has created the actions.
        self.management.start_rollout(rollout)
        self.wait_for(rollout, "running", 300)
        lines = self.folder / "seconds"
        # Late enough for all cameras to have polled: before its first poll, a camera does not know the interval.
        failure = 3 * interval // 2
        generator = self.launch(failure + down + 2 * interval + LATE_SECONDS, 0, "--start-within", interval,
                                "--upgrade-seconds", interval, "--power-at", failure, "--seconds-file", lines, *more)
        began = time.monotonic()
        time.sleep(began + failure - time.monotonic())
        if down:
            self.cluster.proxy.stop()
            time.sleep(down)
            self.cluster.proxy.start()
        returned = time.monotonic() - began - failure if down else 0.0
        taken = self.result(generator)
        seconds = [[int(number) for number in line.split()] for line in lines.read_text().splitlines()]
        demanded = [row[1] for row in seconds[failure:]]
        lost = offered - taken["done"]
        if not lost:
            self.wait_for(rollout, "finished", 60)
        return {"cameras": self.cameras, "instances": len(self.cluster.instances), "polling_seconds": interval,
                "down_seconds": down, "offered": offered, "lost": lost,
                "unserved": self.cameras - taken["served"],
                "most_requests_per_second": max(demanded[60 if not options.quick else 5:]),
                "served_seconds": [round(ms / 1000 - returned, 1) for ms in taken["served_ms"]],
                "errors": taken["errors"],
                "errors_after_return": sum(row[3] for row in seconds[failure + int(returned) + 1:]),
                "slowest_ms": taken["slowest_ms"], "latest_ms": taken["latest_ms"], "demanded": demanded}


# --- the results ---

class Results:
    """Kept in a file after each run, so that an interrupted measurement can be continued with --only."""

    def __init__(self, file: Path, keep: bool):
        self.file = file
        self.taken = json.loads(file.read_text()) if keep and file.exists() else {
            "of": "load", "machine": record.machine(), "capacity": {}, "rollouts": [], "power": []}

    def add(self, kind: str, run: dict) -> None:
        def key(of: dict) -> tuple:
            return of["cameras"], of["instances"], of.get("down_seconds"), of.get("spread")
        self.taken[kind] = sorted([other for other in self.taken[kind] if key(other) != key(run)] + [run], key=key)

    def store(self) -> None:
        lines = rollout_lines(self.taken)
        if self.taken["power"]:
            picture = "![Requests a second after the power has returned to all cameras](fleet-power.svg)"
            lines += ["", *power_lines(self.taken), "", picture]
        else:
            lines += ["", "What follows when the power returns to all cameras has not been recorded yet."]
        self.taken["lines"] = lines
        # What simulations of larger fleets are compared with.
        self.taken["measured"] = {"load": self.taken["rollouts"],
                                  "capacity_requests_per_second": self.taken["capacity"]}
        self.file.write_text(json.dumps(self.taken, indent=1))


def cost_ms(run: dict) -> float:
    """Returns the CPU time of server, database and proxy for a camera."""
    return 1000 * sum(run[f"{name}_cpu_seconds"] for name in ("server", "database", "proxy")) / run["cameras"]


def growth(taken: dict, run: dict) -> dict[str, float]:
    """Returns by how many percent the costs of a camera are larger than with 1,000 cameras; empty: not measured."""
    return {what: 100 * (large / little - 1)
            for base in taken["rollouts"]
            if base["instances"] == run["instances"] and base["cameras"] == 1000 != run["cameras"]
            for what, large, little in (
                ("CPU", cost_ms(run), cost_ms(base)),
                ("requests", run["requests"] / run["cameras"], base["requests"] / base["cameras"]))}


def rollout_lines(taken: dict) -> list[str]:
    lines = ["| Cameras, instances | Duration | CPU: server, database, nginx | Database grows by | Slowest answer "
             "| Errors | For each camera | More than 1,000 |", "|---|---|---|---|---|---|---|---|"]
    for run in taken["rollouts"]:
        more = ", ".join(f"{what} {percent:+.0f} %" for what, percent in growth(taken, run).items())
        lines.append(
            f"| {run['cameras']:,}, {run['instances']} | {run['seconds']:.0f} s | {run['server_cpu_seconds']:.0f}, "
            f"{run['database_cpu_seconds']:.0f}, {run['proxy_cpu_seconds']:.0f} s "
            f"| {run['database_bytes'] / 1e6:.1f} MB | {run['slowest_ms']} ms | {run['errors']} "
            f"| {cost_ms(run):.0f} ms, {run['requests'] / run['cameras']:.1f} requests | {more} |")
    return lines


def power_lines(taken: dict) -> list[str]:
    lines = ["| Cameras, server | First poll and retries | Most requests a second after a minute / capacity "
             "| Last camera is answered, after the server's return | Lost results | Cameras not answered |",
             "|---|---|---|---|---|---|"]
    for run in taken["power"]:
        server = f"down for {run['down_seconds']} s" if run["down_seconds"] else "healthy"
        lines.append(f"| {run['cameras']:,}, {server} | {'spread' if run['spread'] else 'not spread'} "
                     f"| {run['most_requests_per_second']} / {run['capacity']:.0f} | {run['served_seconds'][2]:.0f} s "
                     f"({run['served_seconds'][2] / run['polling_seconds']:.1f} intervals) | {run['lost']} "
                     f"| {run['unserved']} |")
    return lines


def faults(taken: dict, quick: bool) -> list[str]:
    """Returns the goals that are missed. Those of rates and times need an idle machine and a full run."""
    missed = [f"{run['cameras']} cameras, {run['instances']} instances: {run['error_kinds']}"
              for run in taken["rollouts"] if run["errors"]]
    missed += [f"{run['cameras']} cameras, {run['instances']} instances: {run['groups_at_once']} groups at the same time"
               for run in taken["rollouts"] if run.get("groups_at_once", 0) > 1]
    missed += [f"{run['cameras']} cameras, {run['instances']} instances: {what} of a camera {percent:+.0f} %"
               for run in taken["rollouts"] for what, percent in growth(taken, run).items() if percent >= MOST_GROWTH]
    for run in taken["power"]:
        if not run["spread"]:
            continue  # only for comparison
        what = f"power with the server down for {run['down_seconds']} s: "
        if run["lost"] or run["unserved"]:
            missed.append(f"{what}{run['lost']} results lost, {run['unserved']} cameras not answered")
        if quick:
            continue
        if run["most_requests_per_second"] >= 2 * run["capacity"]:
            missed.append(f"{what}{run['most_requests_per_second']} requests a second")
        if run["served_seconds"][2] > 2 * run["polling_seconds"]:
            missed.append(f"{what}a camera is answered only after {run['served_seconds'][2]} s")
    return missed


def measure(options: argparse.Namespace, site: Site, results: Results, kinds: list[str]) -> None:
    site.start()
    instances = len(site.cluster.instances)
    capacity = site.capacity()
    results.taken["capacity"][str(instances)] = round(capacity)
    print(f"{instances} instances answer {capacity:.0f} polls a second", flush=True)
    if "rollout" in kinds:
        results.add("rollouts", site.roll_out())
        results.store()
        print("\n".join(rollout_lines(results.taken)[2:]), flush=True)
    for kind, more in (("power", []), ("unspread", ["--unspread"])):
        for down in options.downs if kind in kinds else ():
            run = site.fail_power(down, *more)
            results.add("power", {**run, "spread": not more, "capacity": round(capacity)})
            results.store()
            print("\n".join(power_lines(results.taken)[2:]), flush=True)


def main() -> int:
    arguments = argparse.ArgumentParser()
    for name in ("build", "work", "jar", "nginx", "postgresql"):
        arguments.add_argument(name, type=Path)
    arguments.add_argument("--quick", action="store_true")
    arguments.add_argument("--only", nargs=3, metavar=("CAMERAS", "INSTANCES", "KIND"),
                           help="a part of the measurement; KIND: rollout, power, unspread (power, without what limits "
                                "the load, for comparison) or several, joined by +")
    options = arguments.parse_args()
    options.certificates = False
    vars(options).update(QUICK if options.quick else FULL)
    plan = QUICK_PLAN if options.quick else PLAN
    if options.only:
        plan = [(int(options.only[0]), int(options.only[1]), options.only[2])]
    refused = subprocess.run([options.build / "bench/load_generator", "--server", "https://192.0.2.1"],
                             capture_output=True, text=True)
    if refused.returncode != 64 or refused.stderr.count("\n") != 1:
        raise OSError(f"load_generator does not refuse another host: {refused.stderr}")
    results = Results(options.work / ("load-quick.json" if options.quick else "load.json"), bool(options.only))
    print("\n".join(record.machine()), flush=True)
    for cameras, instances, kinds in plan:
        site = Site(options, cameras, instances)
        try:
            measure(options, site, results, kinds.split("+"))
        finally:
            site.close()
    missed = faults(results.taken, options.quick)
    print("\n".join(missed or ["no goal is missed"]))
    return 1 if missed else 0


if __name__ == "__main__":
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    try:
        sys.exit(main())
    except (OSError, Refused) as reason:
        print(f"load: {reason}", file=sys.stderr)
        sys.exit(2)
