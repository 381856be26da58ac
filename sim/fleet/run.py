"""Runs a rollout to simulated cameras, from the start of the server to the comparison of all states. Started
by scripts/fleet, which has checked the arguments."""
import argparse
import random
import secrets
import shutil
import signal
import sys
import time
from concurrent.futures import Future, ThreadPoolExecutor
from pathlib import Path

import picture
from agreement import GIVEN_UP, HEAD, REFUSED, UNTOUCHED, UPGRADED, UPGRADED_AGAIN, Judge
from board_camera import BoardCamera
from camera import Camera
from certificates import Authority
from cluster import FAULTS, RATE_LIMIT, Cluster, Faults, experience
from management import Management, Refused
from package import COMPATIBLE, IMAGES, NEW_VERSION, NEXT_VERSION, PARTITIONS, TOO_SMALL, Package
from server import Proxy, Server
from table import Table
from traffic import MOST_PERCENT, MOST_PERCENT_WITH_CUTS, Traffic

MOST_GROUPS = 4
MOST_ERRORS = 25  # percent of a group; with --bad or --unhealthy half of the cameras of each group fail
CUTS = 2  # power cuts of each camera; fewer than the three requests that the agent posts for an action
# The stages in which the power may be cut (a part of the stage's name), at most CUT_WITHIN s after the
# stage begins.
CUT_STAGES = ("downloading", "downloaded and verified", "request posted", "writing", "reading",
              "slot switched", "restarting", "waits for corvo_commit")
CUT_WITHIN = 2.0
OFF_SECONDS = (0.2, 1.0)
NEEDED = "lens.cal"  # with --unhealthy, the file in /config that the new system needs
BOARD_SECONDS = 240  # additional time for the emulated board
CLUSTER_SECONDS = 120  # additional time for the faults of a cluster
LAST_REPORT_SECONDS = 20  # time for the cameras to report their version and slot after the result
ASK_SECONDS = 1.0


class Fleet:
    def __init__(self, options: argparse.Namespace):
        self.options = options
        self.scripts = Path(__file__).resolve().parents[2] / "scripts"
        self.folder: Path = options.work / "run"
        self.random = random.Random(options.seed)
        self.server: Server | None = None
        self.proxy: Proxy | None = None
        self.cluster: Cluster | None = None
        self.faults: Faults | None = None
        self.cameras: list[Camera] = []
        self.made: list[tuple[str, int | str]] = []  # created at the server; removed from an existing one
        self.plan: dict[str, list[int]] = {}  # in which stages the power of a camera is cut
        self.due: dict[str, float] = {}  # when the power of a camera is cut, or comes back
        self.status = ""
        self.version, self.rollouts = NEW_VERSION, 0
        self.traffic: Traffic | None = None

    # --- the server ---

    def start_server(self) -> None:
        options = self.options
        self.tls = Authority(self.folder / "tls", "authority")
        if options.server:
            self.url, self.ca = options.server.rstrip("/"), options.ca
            user, _, password = options.user.partition(":")
            self.management = Management(self.url, user, password, self.ca)
            return
        self.ca = self.tls.certificate
        if options.cluster:
            print("starting PostgreSQL, two instances of the rollout server and nginx", flush=True)
            self.cluster = Cluster(options, self.folder / "cluster", self.scripts, self.tls)
            self.cluster.start()
            self.proxy = self.cluster.proxy
            self.management = self.cluster.management(self.ca)
        else:
            self.start_one_server()
        if options.certificates:
            self.management.set("authentication.header.enabled", True)
            self.management.set("authentication.header.authority", self.proxy.voucher)
        else:
            self.management.set("authentication.targettoken.enabled", True)
        self.url = self.proxy.url if self.proxy else self.server.url

    def start_one_server(self) -> None:
        options = self.options
        self.server = Server(options.jar, self.folder / "server", self.tls,
                             tls=not options.certificates and not options.chunked)
        print("starting the rollout server", flush=True)
        self.server.start()
        self.management = Management(self.server.management_url, self.server.user,
                                     self.server.password, self.ca)
        if options.certificates or options.chunked:  # nginx also counts the bytes
            self.proxy = Proxy(options.nginx, self.scripts, [self.server], self.folder / "proxy", self.tls,
                               options.certificates)
            self.proxy.start()

    def check_server(self) -> None:
        if self.options.certificates:
            self.management.create_targets({name: secrets.token_hex(16)
                                            for name in ("check", "other")})
            self.proxy.check(self.tls)
            print(f"server: {self.url}; it accepts a camera only with that camera's certificate", flush=True)
            return
        if not self.management.setting("authentication.targettoken.enabled"):
            raise OSError("the server does not accept tokens of devices; switch on its setting "
                          "authentication.targettoken.enabled")
        print(f"server: {self.url}; polling interval "
              f"{self.management.setting('pollingTime')}", flush=True)

    # --- cameras, package, rollout ---

    def settings(self, name: str) -> dict[str, str | Path]:
        """Returns the settings of a camera's agent."""
        if self.options.certificates:
            certificate, key = self.tls.issue(name, "clientAuth")
            who = {"certificate": certificate, "key": key}
        else:
            who = {"target-token-file": "/config/token"}
            if self.url.startswith("http://"):  # only an existing server (--server) can be without TLS
                who["allow-unencrypted-token"] = "on"
        if self.ca:
            who["ca"] = self.ca
        if self.options.cluster:
            who["rate-limit"] = str(RATE_LIMIT)
        return {"server": self.url, "controller-id": name, **who, "keyring": self.package.keyring,
                "compatible": COMPATIBLE, "version-file": "/etc/camera_version",
                "download-folder": "/media/mmcblk0p1/ota/", "state-folder": "/config/agent/"}

    def make_package(self) -> None:
        self.package = Package(self.folder, self.options.programs, self.scripts)

    def make_cameras_known(self) -> None:
        # An existing server may have other cameras, so the names need a unique prefix.
        self.prefix = f"corvo-{secrets.token_hex(3)}-" if self.options.server else "cam-"
        for number in range(1, self.options.cameras + 1):
            name = f"{self.prefix}{number:02}"
            self.cameras.append(Camera(name, secrets.token_hex(16), self.folder / name,
                                       self.scripts, self.options.programs))
        self.made += [("targets", camera.name) for camera in self.cameras]
        self.management.create_targets({camera.name: camera.token for camera in self.cameras})

    def make_rollout(self) -> None:
        self.rollouts += 1
        files = self.package.make(self.version, f"/config/{NEEDED}" if self.options.unhealthy else "",
                                  self.options.chunked, NEW_VERSION if self.rollouts > 1 else "")
        self.judge = Judge(self.management, self.package, self.rollouts)
        name = f"{self.prefix}{self.version}"
        module = self.management.create_module(name, self.version, files)
        self.made.append(("softwaremodules", module))
        distribution_set = self.management.create_set(name, self.version, module)
        self.made.append(("distributionsets", distribution_set))
        self.groups = min(MOST_GROUPS, len(self.cameras))
        self.rollout = self.management.create_rollout(
            name, distribution_set, f"controllerId=={self.prefix}*", self.groups, MOST_ERRORS)
        self.made.append(("rollouts", self.rollout))
        self.wait_for_rollout("ready")
        by_name = {camera.name: camera for camera in self.cameras}
        for number, group in enumerate(self.management.groups(self.rollout), 1):
            for target in self.management.targets_of_group(self.rollout, group["id"]):
                by_name[target].group = number
        self.cameras.sort(key=lambda camera: (camera.group, camera.name))

    def make_cameras(self) -> None:
        """Every other camera of each group has a partition that is too small (--bad), or has not the file that
        the new system needs (--unhealthy)."""
        group, place = 0, 0
        for camera in self.cameras:
            group, place = camera.group, place + 1 if camera.group == group else 0
            camera.small = self.options.bad and place % 2 == 0
            camera.needed = NEEDED if self.options.unhealthy and place % 2 == 1 else ""
        if self.options.board:
            self.choose_board()
        for camera in self.cameras:
            camera.doubled = () if self.options.one_copy else tuple(IMAGES)
            camera.make(TOO_SMALL if camera.small else PARTITIONS, self.settings(camera.name))

    def choose_board(self) -> None:
        """Replaces the first camera that need not fail by the emulated board."""
        place = next((i for i, camera in enumerate(self.cameras) if not self.must_fail(camera)), None)
        if place is None:
            print("without the board: every camera must fail")
            return
        was = self.cameras[place]
        self.cameras[place] = BoardCamera(was.name, was.token, was.folder, was.scripts,
                                          was.programs, was.group, needed=was.needed)
        print(f"{was.name} is the emulated board", flush=True)

    def wait_for_rollout(self, *wanted: str) -> None:
        until = time.monotonic() + 60
        while (status := self.management.rollout_status(self.rollout)) not in wanted:
            if time.monotonic() > until:
                raise OSError(f"the rollout is still \"{status}\" after 60 s")
            time.sleep(0.2)

    # --- while it runs ---

    def seconds_allowed(self) -> float:
        seconds = (180 + 6 * len(self.cameras) + (BOARD_SECONDS if self.options.board else 0)
                   + (CLUSTER_SECONDS if self.options.cluster else 0))
        if self.options.server:
            hours, minutes, rest = self.management.setting("pollingTime").split(":")
            seconds += 2 * self.groups * (3600 * int(hours) + 60 * int(minutes) + int(rest))
        return seconds

    def watch(self) -> None:
        """Runs the cameras until the rollout has ended or a camera is broken."""
        self.table = Table(self.cameras)
        if self.proxy:
            self.traffic = Traffic(self.proxy.requests, sum(IMAGES.values()))
        self.began = time.monotonic()
        end, ask = self.began + self.seconds_allowed(), 0.0
        over: Future | None = None
        for camera in self.cameras:
            self.judge.remember(camera)
            camera.enter("waits for its turn")
            camera.start()
        self.management.start_rollout(self.rollout)
        if self.cluster:
            self.faults = Faults(self.cluster, self.cameras, self.options.fault, self.options.seed,
                                 self.stops())
        # Another thread asks the server, because while that is not available an answer takes long.
        operator = ThreadPoolExecutor(1)
        while time.monotonic() < end and not any(camera.fault for camera in self.cameras):
            self.update()
            if time.monotonic() >= ask and (over is None or over.done()):
                if over and over.result():
                    break
                ask = time.monotonic() + ASK_SECONDS
                over = operator.submit(self.is_over)
            time.sleep(0.1)
        else:
            self.judge.wrong += [camera.fault for camera in self.cameras if camera.fault] or [
                f"the rollout is \"{self.status}\" after {time.monotonic() - self.began:.0f} s"]
        operator.shutdown()
        self.ended = time.monotonic()

    def update(self) -> None:
        for camera in self.cameras:
            camera.update()
            if self.options.cut:
                self.cut_power(camera)
        if self.faults:
            self.faults.update()
        self.table.show(f"rollout {self.version}: {self.status}"
                        + (f", without {self.faults.now}" if self.faults and self.faults.now else ""))

    def cut_power(self, camera: Camera) -> None:
        """Cuts the power of a camera, or switches it on again, when it is time."""
        now, due = time.monotonic(), self.due.get(camera.name)
        if due is None:
            if camera.cuts == CUTS:
                return
            # Sorted, because a stage that the camera has passed does not come again.
            plan = self.plan.setdefault(camera.name, sorted(
                self.random.choices(range(len(CUT_STAGES)), k=CUTS)))
            if CUT_STAGES[plan[camera.cuts]] in camera.stage or self.has_result(camera):
                self.due[camera.name] = now + self.random.uniform(0, CUT_WITHIN)
        elif now >= due and camera.process is not None:
            camera.kill()
            camera.read_output()
            camera.cuts += 1
            camera.enter("power cut")
            self.due[camera.name] = now + self.random.uniform(*OFF_SECONDS)
        elif now >= due:
            del self.due[camera.name]
            camera.enter("on again after its result" if self.has_result(camera)
                         else "starts again")
            camera.start()

    @staticmethod
    def has_result(camera: Camera) -> bool:
        return any(word in stage for _, stage in camera.changes for word in ("success", "failure"))

    def is_over(self) -> bool:
        over = self.is_rollout_over()
        return over and (self.faults is None or self.faults.over)

    def is_rollout_over(self) -> bool:
        self.status = self.management.rollout_status(self.rollout)
        if self.status == "paused":
            # The cameras of the first group still finish their upgrade.
            first = [camera for camera in self.cameras if camera.group == 1]
            return all(self.has_ended(camera) for camera in first) and not self.are_cuts_due(first)
        return self.status == "finished" and not self.are_cuts_due(self.cameras)

    def are_cuts_due(self, cameras: list[Camera]) -> bool:
        return self.options.cut and any(camera.cuts < CUTS or camera.name in self.due for camera in cameras)

    def has_ended(self, camera: Camera) -> bool:
        target = self.management.call("GET", f"targets/{camera.name}")
        return target["updateStatus"] in ("in_sync", "error")

    # --- the result ---

    def must_fail(self, camera: Camera) -> bool:
        return camera.small or (self.options.unhealthy and not camera.needed)

    def end_of(self, camera: Camera):
        if not self.stops():
            return UPGRADED if self.rollouts == 1 else UPGRADED_AGAIN
        if camera.group > 1:
            return UNTOUCHED
        return UPGRADED if not self.must_fail(camera) else REFUSED if camera.small else GIVEN_UP

    def stops(self) -> bool:
        return self.options.bad or self.options.unhealthy

    def compare(self) -> None:
        until = time.monotonic() + LAST_REPORT_SECONDS
        while time.monotonic() < until and not all(
                self.management.attributes(camera.name).get("version") == self.end_of(camera).version
                for camera in self.cameras):
            self.update()
            time.sleep(ASK_SECONDS)
        self.table.print_changes()
        self.table.clear()
        time.sleep(max(camera.SETTLES for camera in self.cameras))
        for camera in self.cameras:
            camera.kill()
        wanted = "paused" if self.stops() else "finished"
        self.status = self.management.rollout_status(self.rollout)
        print(f"\nThe rollout is {self.status} after {self.ended - self.began:.0f} s, "
              f"{self.groups} groups"
              + (f", {sum(camera.cuts for camera in self.cameras)} power cuts (seed "
                 f"{self.options.seed})" if self.options.cut else ""))
        if self.status != wanted:
            self.judge.wrong.append(f"the rollout is {self.status}, not {wanted}")
        print(HEAD)
        for camera in self.cameras:
            print(self.judge.row(camera, self.end_of(camera)), flush=True)
        self.judge.check_order(self.cameras)
        if self.options.chunked:
            if self.rollouts > 1:
                self.traffic.limit(MOST_PERCENT_WITH_CUTS if self.options.cut else MOST_PERCENT)
            print("Bytes over the air, with headers:")
            print("\n".join(self.traffic.lines(self.cameras, self.judge.wrong)))
        if self.cluster:
            print("What the cameras experienced:")
            for begin, end, what in self.faults.happened:
                print(f"  {begin - self.began:7.1f} s  {what} was not available for {end - begin:.1f} s")
            print("\n".join(experience(self.cameras, self.proxy.requests, self.ended)))

    def draw(self) -> None:
        drawing = self.options.work / "rollout.svg"
        drawing.write_text(picture.draw(
            self.cameras, f"Rollout of {self.version} to {len(self.cameras)} cameras: {self.status}",
            self.began, self.ended))
        print(f"The rollout over time: {drawing}")

    def close(self) -> None:
        for camera in self.cameras:
            camera.kill()
        if self.options.server:
            for what, number in reversed(self.made):
                try:
                    self.management.remove(what, number)
                except (OSError, Refused) as reason:
                    print(f"fleet: cannot remove {what} {number} from the server: {reason}", file=sys.stderr)
        for process in (self.cluster, self.proxy, self.server):
            if process is not None:
                process.stop()

    def run(self) -> int:
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        self.start_server()
        if self.options.serve:
            return self.serve()
        self.check_server()
        self.make_package()
        self.make_cameras_known()
        self.make_rollout()
        self.make_cameras()
        self.roll_out()
        if self.options.chunked and not self.judge.wrong:
            self.version = NEXT_VERSION
            self.forget_rollout()
            self.make_rollout()
            self.roll_out()
        if self.judge.wrong:
            print("These are not as expected:")
            print("\n".join(self.judge.wrong))
            print(f"All files are kept in {self.folder}")
            return 1
        print("Server, cameras and partitions agree.")
        return 0

    def roll_out(self) -> None:
        self.watch()
        self.compare()
        self.draw()

    def forget_rollout(self) -> None:
        """Makes the cameras ready for another rollout."""
        self.plan, self.due = {}, {}
        for camera in self.cameras:
            camera.changes, camera.cuts, camera.starts, camera.stage = [], 0, 0, "off"

    def serve(self) -> int:
        print(f"server: {self.url}\nuser: {self.server.user}:{self.server.password}\n"
              f"authority: {self.ca}\nPress Ctrl-C to stop the server.", flush=True)
        self.server.process.wait()
        return 2


def main() -> int:
    arguments = argparse.ArgumentParser()
    for name in ("work", "programs", "jar", "nginx", "postgresql", "ca"):
        arguments.add_argument(f"--{name}", type=Path)
    for name in ("bad", "unhealthy", "board", "cut", "certificates", "one-copy", "serve", "cluster",
                 "chunked"):
        arguments.add_argument(f"--{name}", action="store_true")
    arguments.add_argument("--fault", choices=("", *FAULTS), default="")
    for name in ("server", "user"):
        arguments.add_argument(f"--{name}", default="")
    for name in ("cameras", "seed"):
        arguments.add_argument(f"--{name}", type=int)
    fleet = Fleet(arguments.parse_args())
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    try:
        status = fleet.run()
    except (OSError, Refused) as reason:
        print(f"fleet: {reason}", file=sys.stderr)
        status = 2
    except KeyboardInterrupt:
        status = 130
    finally:
        fleet.close()
    if status == 0:
        shutil.rmtree(fleet.folder, ignore_errors=True)
    return status


sys.exit(main())
