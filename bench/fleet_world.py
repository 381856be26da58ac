"""For measurements: a rollout server and two cameras, one with the agent, the service and the daemon, one with
swupdate, each in a private root."""
import json
import os
import re
import secrets
import select
import shutil
import socket
import ssl
import subprocess
import sys
import threading
import time
import urllib.request
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[1]
SCRIPTS = CHECKOUT / "scripts"
sys.path.append(str(CHECKOUT / "sim/fleet"))

import rivals  # noqa: E402
from camera import Camera  # noqa: E402
from certificates import Authority  # noqa: E402
from management import Management  # noqa: E402
from server import DIES_WITH_PARENT, HOST, Server  # noqa: E402

MIB = 1 << 20
COMPATIBLE, VERSION = "camera", "2.0"
# Processes of the simulation, which are not counted as processes of the camera.
NOT_COUNTED = ("bash", "sleep", "unshare", "setpriv", "private_root", "camera", "measure",
               "curl", "swupdate-client")
LONGEST_ACTION = 300  # seconds
# swupdate keeps its state in the boot environment, and does not start without one.
ENVIRONMENT = """
echo "$1 0x0 0x4000" > /etc/fw_env.config
if [ ! -e "$1" ]; then
    echo ustate=0 > /run/initial
    truncate -s 16384 "$1"
    fw_setenv -f /run/initial bootsystem A 2> /dev/null
fi
shift
exec "$@"
"""
TENANT = "DEFAULT/controller/v1"


class Rig:
    """The server and its offers; measures the duration of actions by the server's clock."""

    def __init__(self, work: Path, build: Path, jar: Path):
        self.work, self.build = work / "fleet", build
        shutil.rmtree(self.work, ignore_errors=True)
        self.work.mkdir(parents=True)
        rivals.SIGNER = self.work / "signer"
        self.tls = Authority(self.work / "tls", "authority")
        self.ca = self.tls.certificate
        subprocess.run([SCRIPTS / "make_pki", self.work / "maker"], check=True)
        self.start_server(jar)
        self.management = Management(self.server.management_url, self.server.user, self.server.password, self.ca)
        self.management.set("authentication.targettoken.enabled", True)
        self.tokens: dict[str, str] = {}
        self.modules: dict[str, int] = {}

    def start_server(self, jar: Path) -> None:
        self.server = Server(jar, self.work / "server", self.tls, tls=True)
        self.server.start()
        self.url = self.server.url

    def close(self) -> None:
        self.server.stop()
        shutil.rmtree(self.work, ignore_errors=True)

    def add_target(self, name: str) -> str:
        self.tokens[name] = secrets.token_hex(16)
        self.management.create_targets({name: self.tokens[name]})
        return self.tokens[name]

    def offer(self, package: str, files: list[Path], target: str, kind: str = "forced") -> int:
        """Offers a package and returns the id of the action. Creates a new distribution set each time, because
        the server does not offer an installed set again."""
        if package not in self.modules:
            self.modules[package] = self.management.create_module(package, VERSION, files)
        made = self.management.create_set(f"{package}-{secrets.token_hex(4)}", VERSION,
                                          self.modules[package])
        self.management.assign(made, target, kind)
        return self.management.actions(target)[0]["id"]

    def status(self, target: str, action: int, wanted: str) -> int | None:
        """Returns when the action got the status `wanted` (ms of the server's clock); None: not yet."""
        for status in self.management.statuses(target, action):
            if status["type"] == wanted:
                return status["reportedAt"]
            if status["type"] == "error":
                raise RuntimeError(f"{target}: {status['messages']}")
        return None

    def began(self, target: str, action: int) -> int:
        return self.management.call("GET", f"targets/{target}/actions/{action}")["createdAt"]

    def last_poll(self, target: str) -> int:
        """Returns the time of the target's last poll in ms of the server's clock; 0: none yet."""
        return self.management.call("GET", f"targets/{target}").get("lastControllerRequestAt") or 0

    def ask(self, target: str, url: str) -> dict:
        request = urllib.request.Request(url, headers={"Authorization": self.authorization(target),
                                                       "Accept": "application/hal+json"})
        context = ssl.create_default_context(cafile=self.ca)
        with urllib.request.urlopen(request, context=context, timeout=30) as answer:
            return json.load(answer)

    def authorization(self, target: str) -> str:
        return f"TargetToken {self.tokens[target]}"

    def links(self, target: str) -> dict[str, str]:
        """Returns the download link of each file that is offered to the target."""
        poll = self.ask(target, f"{self.url}/{TENANT}/{target}")
        offer = self.ask(target, poll["_links"]["deploymentBase"]["href"])
        return {file["filename"]: file["_links"]["download"]["href"]
                for chunk in offer["deployment"]["chunks"] for file in chunk["artifacts"]}

    def signed_package(self, mib: int) -> list[Path]:
        folder = self.work / f"package-{mib}"
        if not folder.exists():
            folder.mkdir()
            with open(folder / "kernel.bin", "wb") as image:
                for _ in range(mib):
                    image.write(os.urandom(MIB))
            maker = self.work / "maker"
            subprocess.run([self.build / "otactl", "pack", "files", "--dir", folder, "--compatible",
                            COMPATIBLE, "--version", VERSION, "--key", maker / "signer.key",
                            "--certificate", maker / "signer.pem", "--intermediate",
                            maker / "authority.pem", "kernel"], check=True,
                           stdout=subprocess.DEVNULL)
        return sorted(folder.iterdir())


class Processes:
    """The processes in the private root that the process `root` has created, without those of the simulation.
    Raises OSError or ValueError while the private root does not exist yet."""

    def __init__(self, root: int):
        (inside,) = Path(f"/proc/{root}/task/{root}/children").read_text().split()
        self.space = os.readlink(f"/proc/{inside}/ns/pid")
        if self.space == os.readlink("/proc/self/ns/pid"):
            raise OSError("the private root does not exist yet")

    def each(self, name: str = "") -> list[Path]:
        """Returns their folders in /proc; with a name only those of that program."""
        found = []
        for entry in Path("/proc").glob("[0-9]*"):
            try:
                if os.readlink(entry / "ns/pid") == self.space:
                    program = (entry / "comm").read_text().strip()
                    if program == name if name else program not in NOT_COUNTED:
                        found.append(entry)
            except OSError:
                pass  # the process has ended
        return found

    def memory(self) -> int:
        """Returns the memory in KiB (PSS: shared pages are divided among the processes that share them)."""
        total = 0
        for entry in self.each():
            try:
                total += int(re.search(r"^Pss:\s+(\d+)", (entry / "smaps_rollup").read_text(),
                                       re.MULTILINE)[1])
            except (OSError, TypeError):
                pass
        return total

    def switches(self) -> int:
        """Counts the voluntary and involuntary context switches of all threads."""
        total = 0
        for status in (task / "status" for entry in self.each() for task in (entry / "task").iterdir()):
            try:
                total += sum(map(int, re.findall(r"ctxt_switches:\s+(\d+)", status.read_text())))
            except OSError:
                pass
        return total


class OurCamera:
    """A simulated camera with the agent. `programs`: the folder of the agent, the service, the daemon and
    otactl."""

    def __init__(self, rig: Rig, name: str, programs: Path, mib: int, url: str = ""):
        self.rig, self.name = rig, name
        self.camera = Camera(name, rig.add_target(name), rig.work / name, SCRIPTS, programs)
        self.camera.make({"kernel": mib * MIB, "rootfs": 4096}, {
            "server": url or rig.url, "controller-id": name, "target-token-file": "/config/token",
            "ca": rig.ca, "keyring": rig.work / "maker/root.pem", "compatible": COMPATIBLE,
            "version-file": "/etc/camera_version", "download-folder": "/media/mmcblk0p1/ota/",
            "state-folder": "/config/agent/"})
        (self.camera.folder / "flash/rootfs").write_text(f"{VERSION}\n")
        (self.camera.folder / "boot_id").write_text(f"{secrets.token_hex(16)}\n")

    def start(self) -> None:
        self.camera.start()

    def processes(self) -> Processes:
        return Processes(self.camera.process.pid)

    def upgrade(self, mib: int) -> dict[str, float]:
        """Returns the time from the offer to the result by the server's clock, and the peak memory."""
        action = self.rig.offer(f"signed-{mib}", self.rig.signed_package(mib), self.name)
        peak, end = 0, time.monotonic() + LONGEST_ACTION
        while (done := self.rig.status(self.name, action, "finished")) is None:
            until = time.monotonic() + 0.5
            while time.monotonic() < until:
                self.camera.update()
                try:
                    peak = max(peak, self.processes().memory())
                except (OSError, ValueError):
                    pass  # the camera restarts
                time.sleep(0.02)
            if self.camera.fault or time.monotonic() > end:
                raise RuntimeError(self.camera.fault or f"{self.name}: not finished: {self.camera.stage}")
        return {"wall": (done - self.rig.began(self.name, action)) / 1000, "peak": peak}

    def forget_package(self) -> None:
        """Deletes the downloaded package, so that it is downloaded again."""
        shutil.rmtree(self.camera.folder / "card/ota")
        (self.camera.folder / "card/ota").mkdir()

    def once(self, *under) -> subprocess.Popen:
        """Starts `corvo_agent once` (one poll, and the action that follows) as the camera's only program."""
        return subprocess.Popen([*DIES_WITH_PARENT, *self.camera.command(
            *under, self.camera.programs / "corvo_agent", "once")], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True)

    def taken_once(self) -> dict[str, float]:
        self.forget_package()
        result = self.camera.folder / "taken"
        run = self.once(self.rig.build / "bench/measure", result)
        _, errors = run.communicate()
        if run.returncode != 0:
            raise RuntimeError(f"corvo_agent once: {run.returncode}, {errors.decode()}")
        return json.loads(result.read_text())

    def close(self) -> None:
        self.camera.remove()


class Swupdate:
    """A camera with swupdate in its mode for this server. Instead of a restart of the camera, only swupdate is
    started again, with the option to confirm the upgrade."""

    def __init__(self, rig: Rig, name: str, image: Path, mib: int, configuration: str = ""):
        self.rig, self.name = rig, name
        self.folder = rig.work / name
        self.folder.mkdir()
        (self.folder / "swupdate.cfg").write_text(f"globals: {{ }};\n{configuration}")
        partition = self.folder / "kernel"
        partition.write_bytes(os.urandom(mib * MIB))
        self.package = rivals.Swupdate(image, str(partition), self.folder / "package").package
        self.token = rig.add_target(name)
        self.installed = self.folder / "installed"
        self.process: subprocess.Popen | None = None

    def start(self, *more: str, poll: int | None = None) -> None:
        options = ["-t", "DEFAULT", "-u", self.rig.url, "-i", self.name, "-k", self.token, "-x",
                   *(["-p", str(poll)] if poll else []), *more]
        with open(self.folder / "output.txt", "ab") as output:
            self.process = subprocess.Popen(
                [*DIES_WITH_PARENT, SCRIPTS / "private_root", "bash", "-c", ENVIRONMENT, "environment",
                 self.folder / "environment", "swupdate", "-f", self.folder / "swupdate.cfg", "-B", "uboot",
                 "-l", "3", "-M", "-m", "-H", "camera:1.0", "-k", rivals.SIGNER / "cert.pem", "-p",
                 f"touch {self.installed}", "-u", " ".join(options)], stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT, start_new_session=True)

    def stop(self) -> None:
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None

    def processes(self) -> Processes:
        return Processes(self.process.pid)

    def upgrade(self, mib: int) -> dict[str, float]:
        self.installed.unlink(missing_ok=True)
        action = self.rig.offer(f"swu-{mib}", [self.package], self.name)
        peak, end = 0, time.monotonic() + LONGEST_ACTION
        while not self.installed.exists():
            peak = max(peak, self.processes().memory())
            time.sleep(0.02)
            if self.process.poll() is not None or time.monotonic() > end:
                raise RuntimeError(f"swupdate has not installed it, see {self.folder}/output.txt")
        self.stop()
        self.start("-c", "2", poll=1)
        while (done := self.rig.status(self.name, action, "finished")) is None:
            if time.monotonic() > end:
                raise RuntimeError("swupdate does not confirm")
            time.sleep(0.1)
        return {"wall": (done - self.rig.began(self.name, action)) / 1000, "peak": peak}

    def close(self) -> None:
        self.stop()
        shutil.rmtree(self.folder, ignore_errors=True)


class Forwarder:
    """Forwards connections to the server, and counts them and the bytes: `count` of the server, `sent` by clients."""

    def __init__(self, port: int):
        self.target, self.count, self.limit = port, 0, 0
        self.connections, self.sent = 0, 0
        self.reached = threading.Event()
        self.listener = socket.create_server((HOST, 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self) -> None:
        while True:
            client, _ = self.listener.accept()
            self.connections += 1
            threading.Thread(target=self.forward, args=(client,), daemon=True).start()

    def forward(self, client: socket.socket) -> None:
        # A small buffer, because bytes that wait in it count as sent although the client has not read them.
        client.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 65536)
        with client, socket.create_connection((HOST, self.target)) as server:
            while True:
                for ready in select.select((client, server), (), ())[0]:
                    try:
                        data = ready.recv(65536)
                        if not data:
                            return
                        (server if ready is client else client).sendall(data)
                    except OSError:
                        return
                    if ready is client:
                        self.sent += len(data)
                    else:
                        self.count += len(data)
                        if self.limit and self.count >= self.limit:
                            self.reached.set()
