"""Instances of the rollout server with one PostgreSQL and one folder of packages, nginx in front of them, and
the faults that they have during a rollout."""
import http.client
import random
import re
import secrets
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path

from camera import RECOVERED, Camera
from certificates import Authority
from management import Management, Refused
from server import HOST, Contained, Proxy, Server, free_port, listens

# What can fail: a server (killed, each in turn), the database (killed), nginx (killed), the folder of packages.
FAULTS = ("instance", "database", "proxy", "artifacts")
INSTANCES = 2
# Options of Java for a short start on a busy machine.
SHORT_START = ("-XX:TieredStopAtLevel=1", "-XX:+UseSerialGC")
# PostgreSQL refuses to run as root. In a user name space its user has another number, but is the same user for
# the files, so that this works for each user of this machine.
AS_NOBODY = ("unshare", "--user", "--map-user=65534", "--map-group=65534")
# A fault begins at most FAULT_WITHIN s after a camera has entered the fault's stage. If none does so for
# WAIT_SECONDS, the fault begins then; the wait for a download is long enough for the next group to begin.
FAULT_STAGES = ("downloading", "downloaded and verified", "stopping", "writing", "slot switched",
                "waits for corvo_commit", "success", "failure")
FAULT_WITHIN = 1.0
WAIT_SECONDS, DOWNLOAD_WAIT_SECONDS, FIRST_DOWNLOAD_SECONDS = 5.0, 40.0, 15.0
DOWN_SECONDS = (0.5, 4.0)  # until a killed program is started again
ARTIFACTS_SECONDS = 10.0
RATE_LIMIT = 2000000  # bytes a second for each camera, so that downloads last long enough to be interrupted
CACHE_MS = 2000  # how long an instance may use a setting of the tenant that the other one has changed
PATIENCE_SECONDS = 60  # how long a question of the operator is repeated
REQUEST = re.compile(r"\S+ (\d+) ([^|]*)\|/[^/]+/controller/(?:artifacts/)?v1/([^/?]+)")


class Database(Contained):
    def __init__(self, postgresql: Path, scripts: Path, folder: Path):
        self.folder, self.password = folder, secrets.token_hex(16)
        folder.mkdir(parents=True)
        programs = next(postgresql.glob("usr/lib/postgresql/*/bin"))
        libraries = next(postgresql.glob("usr/lib/*/libpq.so.5")).parent
        as_nobody = ["env", f"LD_LIBRARY_PATH={libraries}", *AS_NOBODY]
        secret = folder / "password"
        secret.touch(mode=0o600)
        secret.write_text(self.password)
        with open(folder / "initdb.txt", "wb") as output:
            made = subprocess.run(
                [scripts / "private_root", *as_nobody, programs / "initdb", "--no-sync", "--locale=C",
                 "--encoding=UTF8", "--username=fleet", "--auth=scram-sha-256", f"--pwfile={secret}",
                 folder / "data"], stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)
        if made.returncode != 0:
            raise OSError(f"the database cannot be created, see {folder}/initdb.txt")
        port = free_port()
        super().__init__(scripts, port, folder / "postgresql.txt", [
            *as_nobody, programs / "postgres", "-D", folder / "data", "-c", f"listen_addresses={HOST}",
            "-c", f"port={port}", "-c", "unix_socket_directories=", "-c", "jit=off"])

    def connect(self, server: Server) -> None:
        """Makes the server use this database."""
        server.command += ["--spring.profiles.active=cluster", f"--hawkbit.cache.global.ttl={CACHE_MS}",
                           "--spring.jpa.database=POSTGRESQL",
                           "--spring.datasource.driverClassName=org.postgresql.Driver",
                           f"--spring.datasource.url=jdbc:postgresql://{HOST}:{self.port}/postgres"]
        server.secrets |= {"SPRING_DATASOURCE_USERNAME": "fleet", "SPRING_DATASOURCE_PASSWORD": self.password}


class PatientManagement(Management):
    """Repeats questions while the cluster cannot answer them."""

    def call(self, method: str, path: str, *more):
        until = time.monotonic() + PATIENCE_SECONDS
        while True:
            try:
                return super().call(method, path, *more)
            except (OSError, http.client.HTTPException, Refused) as reason:
                final = isinstance(reason, Refused) and reason.status < 500
                if method != "GET" or final or time.monotonic() > until:
                    raise
            time.sleep(0.5)


class Cluster:
    def __init__(self, options, folder: Path, scripts: Path, authority: Authority, instances: int = INSTANCES):
        # Like a network share: without it, the instances find an empty folder and can write to it.
        self.artifacts, self.share, self.mount_point = (
            folder / name for name in ("artifacts", "share", "mount-point"))
        for made in (self.share, self.mount_point):
            made.mkdir(parents=True)
        self.mount(self.share)
        self.database = Database(options.postgresql, scripts, folder / "database")
        password = secrets.token_hex(16)
        self.instances = [Server(options.jar, folder / f"instance-{number}", authority, tls=False,
                                 files=self.artifacts, password=password)
                          for number in range(1, instances + 1)]
        for server in self.instances:
            server.command[1:1] = SHORT_START
            self.database.connect(server)
        self.proxy = Proxy(options.nginx, scripts, self.instances, folder / "proxy", authority,
                           options.certificates)

    def start(self) -> None:
        self.database.start()
        for start in (Server.launch, Server.wait):
            for server in self.instances:
                start(server)
        self.proxy.start()

    def mount(self, folder: Path) -> None:
        link = self.artifacts.with_suffix(".new")
        link.symlink_to(folder)
        link.rename(self.artifacts)

    def management(self, authority: Path) -> Management:
        return PatientManagement(self.proxy.management_url, self.instances[0].user,
                                 self.instances[0].password, authority)

    def stop(self) -> None:
        for program in (self.proxy, *self.instances, self.database):
            program.stop()


class Faults:
    """The faults of one run, one after the other, in an order and at moments that the seed determines. If the
    rollout `stops` after its first group, the fault of the packages comes first, because no camera of another group
    will download any."""

    def __init__(self, cluster: Cluster, cameras: list[Camera], only: str, seed: int, stops: bool):
        self.cluster, self.cameras = cluster, cameras
        self.random = random.Random(f"{seed} faults")
        targets = [("instance", number) for number in range(INSTANCES)] + [
            (what, 0) for what in FAULTS if what != "instance"]
        self.plan = [target for target in targets if only in ("", target[0])]
        self.random.shuffle(self.plan)
        self.download_wait = FIRST_DOWNLOAD_SECONDS if stops else DOWNLOAD_WAIT_SECONDS
        if stops:
            self.plan.sort(key=lambda target: target[0] != "artifacts")
        self.happened: list[tuple[float, float, str]] = []  # begin, end, what
        self.now = ""  # what is unavailable at present
        self.over = False
        self.steps = self.run()

    def update(self) -> None:
        """Begins or ends a fault, if it is time. Never waits."""
        if not self.over:
            self.over = next(self.steps, "over") == "over"

    def run(self) -> Iterator[str]:
        for what, number in self.plan:
            stage = "downloading" if what == "artifacts" else self.random.choice(FAULT_STAGES)
            delay, down = self.random.uniform(0, FAULT_WITHIN), self.random.uniform(*DOWN_SECONDS)
            yield from self.wait_for_stage(stage, self.download_wait if what == "artifacts" else WAIT_SECONDS)
            yield from pause(delay)
            begin = time.monotonic()
            self.now = f"instance {number + 1}" if what == "instance" else what
            if what == "artifacts":
                yield from self.hide_artifacts()
            else:
                program = {"instance": self.cluster.instances[number], "database": self.cluster.database,
                           "proxy": self.cluster.proxy}[what]
                yield from restart(program, down)
            self.happened.append((begin, time.monotonic(), self.now))
            self.now = ""

    def wait_for_stage(self, stage: str, seconds: float) -> Iterator[str]:
        until, entered = time.monotonic() + seconds, [len(camera.changes) for camera in self.cameras]
        while time.monotonic() < until and not any(
                stage in name for camera, number in zip(self.cameras, entered)
                for _, name in camera.changes[number:]):
            yield stage

    def hide_artifacts(self) -> Iterator[str]:
        self.cluster.mount(self.cluster.mount_point)
        yield from pause(ARTIFACTS_SECONDS)
        self.cluster.mount(self.cluster.share)


def restart(program: Server | Contained, seconds: float) -> Iterator[str]:
    """Kills the program, and starts it again after some time. Ends when it is available."""
    program.stop()
    yield from pause(seconds)
    program.launch()
    while not listens(program.port):
        if program.process.poll() is not None:
            program.wait()  # raises the error
        yield "starting"


def pause(seconds: float) -> Iterator[str]:
    until = time.monotonic() + seconds
    while time.monotonic() < until:
        yield "waiting"


HEAD = f"  {'':<5}  {'camera':<10}  requests  failed  by the other  errors  delayed"


def experience(cameras: list[Camera], requests: Path, ended: float) -> Iterator[str]:
    """Returns the lines of a table: requests of each camera that arrived, those that were answered with an error
    or not at all, those that the other instance answered because the first one could not; the errors that the
    agent logged, and how long they lasted in all."""
    yield HEAD
    counted = {camera.name: [0, 0, 0] for camera in cameras}
    for line in requests.read_text(errors="replace").splitlines():
        if (found := REQUEST.match(line)) and found[3] in counted:
            row = counted[found[3]]
            row[0] += 1
            row[1] += int(found[1]) >= 400
            row[2] += "," in found[2] and int(found[1]) < 400
    for camera in cameras:
        count, delay, since = 0, 0.0, None
        for when, text in [*camera.errors, (ended, RECOVERED)]:
            count += text != RECOVERED
            if text == RECOVERED and since is not None:
                delay, since = delay + when - since, None
            elif text != RECOVERED and since is None:
                since = when
        arrived, failed, moved = counted[camera.name]
        yield (f"  {'':<5}  {camera.name:<10}  {arrived:>8}  {failed:>6}  {moved:>12}  {count:>6}"
               f"  {delay:>5.1f} s")
