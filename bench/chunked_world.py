"""For the measurements of chunked images: a web server with plain files, a camera whose agent downloads from it until
it posts the request, and swupdate with its handler for deltas. Each runs in a private root."""
import filecmp
import hashlib
import json
import os
import queue
import re
import secrets
import select
import shutil
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

import rivals
from fleet_world import COMPATIBLE, SCRIPTS, VERSION, Processes
from camera import Camera
from server import DIES_WITH_PARENT, HOST, free_port, wait_for_port

NAME, IMAGE = "camera", "rootfs.img"
TARGET = f"/DEFAULT/controller/v1/{NAME}"
SO_MAX_PACING_RATE = 47  # of Linux; Python has no name for it
SEGMENT, PIECE = 1448, 16384  # bytes: a segment as on Ethernet; what is forwarded at a time
LONGEST = 300  # seconds of one download
SAMPLE_SECONDS = 0.02
# The running copy of the partition is where corvo_slots would link it. The service needs some time until it can take a
# request, and that is not a part of a download.
START_CAMERA = """
mkdir -p /dev/block/running
ln -s "$1/running" /dev/block/running/rootfs
system_call_daemon > "$1/daemon.txt" 2>&1 &
corvo_upgrade > "$1/service.txt" 2>&1 &
until grep -q "ota wait for ota message" "$1/service.txt"; do sleep 0.05; done
echo begin
exec "$2" "$1/taken" corvo_agent once
"""
START_SWUPDATE = """
swupdate -l 4 -M -m -H camera:1.0 -k "$1" 2>&1 &
until [ -S /tmp/sockinstctrl ]; do sleep 0.05; done
echo begin
curl -sS --fail -o /tmp/package.swu "$2"
swupdate-client /tmp/package.swu > /dev/null 2>&1 || :
wait
"""


class WebServer:
    """nginx with a folder of plain files. To the agent these are an update server with one action."""

    def __init__(self, nginx: Path, folder: Path):
        self.files, self.log, self.action = folder / "files", folder / "access.txt", 0
        self.port = free_port()
        self.url = f"http://{HOST}:{self.port}"
        self.files.mkdir(parents=True)
        configuration = folder / "nginx.conf"
        temporary = "".join(f"    {kind}_temp_path /tmp/{kind};\n"
                            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        configuration.write_text(f"""\
daemon off;
pid /run/nginx.pid;
user root;
events {{}}
http {{
{temporary}    log_format sizes '$bytes_sent $request_length $status "$request" "$http_range"';
    access_log {self.log} sizes;
    server {{
        listen {HOST}:{self.port};
        root {self.files};
        location ~ /(feedback|configData)$ {{ return 200; }}
        location ~ /deploymentBase/ {{ try_files /action.json =404; }}
        location = {TARGET} {{ try_files /poll.json =404; }}
    }}
}}
""")
        output = folder / "nginx.txt"
        with open(output, "wb") as log:
            self.process = subprocess.Popen(
                [*DIES_WITH_PARENT, SCRIPTS / "private_root", nginx, "-c", configuration, "-e", output],
                stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
        wait_for_port(self.port, self.process, 20, output)

    def publish(self, package: list[Path]) -> None:
        for file in package:
            target = self.files / file.name
            target.unlink(missing_ok=True)
            target.hardlink_to(file)

    def offer(self, package: list[Path], url: str) -> None:
        """Offers the package as a new action; `url` is that of the server as the camera knows it."""
        self.publish(package)
        self.action += 1
        artifacts = [{"filename": file.name, "size": file.stat().st_size,
                      "hashes": {"sha256": digest_of(file)},
                      "_links": {"download-http": {"href": f"{url}/{file.name}"}}} for file in package]
        (self.files / "action.json").write_text(json.dumps({"id": str(self.action), "deployment": {
            "download": "forced", "update": "forced", "chunks": [
                {"part": "os", "version": VERSION, "name": "system", "artifacts": artifacts}]}}))
        (self.files / "poll.json").write_text(json.dumps({
            "config": {"polling": {"sleep": "00:05:00"}},
            "_links": {"deploymentBase": {"href": f"{url}{TARGET}/deploymentBase/{self.action}"}}}))

    def transferred(self) -> int:
        """Returns the bytes of all requests and answers, with their heads, since the last call."""
        lines = self.log.read_text().splitlines()
        os.truncate(self.log, 0)
        if wrong := [line for line in lines if line.split()[2] not in ("200", "206")]:
            raise RuntimeError(f"the server answered with an error: {wrong[0]}")
        return sum(int(number) for line in lines for number in line.split()[:2])

    def close(self) -> None:
        self.process.kill()
        self.process.wait()


class Line:
    """Forwards connections to the server. It sends at most `rate` bytes a second to a client on each connection, and
    each byte arrives `delay` seconds late, in both directions."""

    def __init__(self, port: int, rate: int, delay: float):
        self.target, self.rate, self.delay = port, rate, delay
        self.listener = socket.create_server((HOST, 0))
        # The kernel does not limit the rate of the first ten segments, which are large on a loopback.
        self.listener.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, SEGMENT)
        self.url = f"http://{HOST}:{self.listener.getsockname()[1]}"
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self) -> None:
        while True:
            client, _ = self.listener.accept()
            threading.Thread(target=self.forward, args=(client,), daemon=True).start()

    def forward(self, client: socket.socket) -> None:
        with client, socket.create_connection((HOST, self.target)) as server:
            client.setsockopt(socket.SOL_SOCKET, SO_MAX_PACING_RATE, self.rate)
            client.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4 * PIECE)
            for one in (client, server):
                one.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            back = threading.Thread(target=self.carry, args=(client, server), daemon=True)
            back.start()
            self.carry(server, client)
            back.join()

    def carry(self, source: socket.socket, sink: socket.socket) -> None:
        waiting: queue.Queue[tuple[float, bytes]] = queue.Queue(8)
        threading.Thread(target=self.deliver, args=(waiting, sink), daemon=True).start()
        data = b"-"
        while data:
            try:
                data = source.recv(PIECE)
            except OSError:
                data = b""
            waiting.put((time.monotonic() + self.delay, data))

    @staticmethod
    def deliver(waiting: queue.Queue, sink: socket.socket) -> None:
        data = b"-"
        while data:
            due, data = waiting.get()
            time.sleep(max(0.0, due - time.monotonic()))
            try:
                sink.sendall(data) if data else sink.shutdown(socket.SHUT_WR)
            except OSError:
                pass  # the rest is taken from the queue, so that the other thread ends


class Run:
    """A program in a private root, which prints "begin" when the measured part begins."""

    def __init__(self, command: list, log: Path):
        self.log = open(log, "wb")
        self.process = subprocess.Popen([*DIES_WITH_PARENT, *command], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=self.log, start_new_session=True)
        self.rest = b""
        self.wait_for(b"begin", lambda: None)
        self.begin, self.processes = time.monotonic(), Processes(self.process.pid)

    def wait_for(self, text: bytes, meanwhile) -> None:
        """Waits for a line with this text."""
        end = time.monotonic() + LONGEST
        while time.monotonic() < end:
            if not select.select([self.process.stdout], [], [], SAMPLE_SECONDS)[0]:
                meanwhile()
                continue
            data = os.read(self.process.stdout.fileno(), 65536)
            self.log.write(data)
            self.log.flush()
            *lines, self.rest = (self.rest + data).split(b"\n")
            if any(text in line for line in lines):
                return
            if not data:
                break
        raise RuntimeError(f"a program has not done its work, see {self.log.name}")

    def measure(self, text: bytes, sampled: bool) -> dict[str, float]:
        """Returns the seconds until the line with this text, and the peak memory of all processes in KiB. Finding
        the memory takes much of a processor, so only a run that waits for the network should be `sampled`."""
        peak = 0

        def sample() -> None:
            nonlocal peak
            peak = max(peak, self.processes.memory() if sampled else 0)

        self.wait_for(text, sample)
        return {"wall": time.monotonic() - self.begin, "memory": peak}

    def close(self) -> None:
        self.process.kill()
        self.process.wait()
        while self.processes.each():
            time.sleep(0.01)
        self.process.stdout.close()
        self.log.close()


class Packages:
    """Signed packages of one image."""

    def __init__(self, build: Path, folder: Path):
        self.build, self.folder, self.keys = build, folder, folder / "maker"
        folder.mkdir(parents=True, exist_ok=True)
        subprocess.run([SCRIPTS / "make_pki", self.keys], check=True)

    def command(self, folder: Path, *more: str) -> list:
        return [self.build / "otactl", "pack", "files", "--dir", folder, "--compatible", COMPATIBLE, "--version",
                VERSION, "--key", self.keys / "signer.key", "--certificate", self.keys / "signer.pem",
                "--intermediate", self.keys / "authority.pem", *more, "rootfs"]

    def of(self, image: Path, *more: str) -> list[Path]:
        """Returns the files that are offered to a camera."""
        folder = self.folder / f"{image.stem}{''.join(more)}"
        if not folder.exists():
            folder.mkdir()
            in_place(image, folder)
            subprocess.run(self.command(folder, *more), check=True, stdout=subprocess.DEVNULL)
        return sorted(file for file in folder.iterdir() if file.name != IMAGE or not more)

    def whole(self, image: Path) -> list[Path]:
        return self.of(image)

    def chunked(self, image: Path) -> list[Path]:
        return self.of(image, "--chunked")

    def index(self, image: Path) -> Path:
        return next(file for file in self.chunked(image) if file.suffix == ".chunks")


class AgentCamera:
    """A camera with the agent and two copies of the partition. Slot A runs."""

    def __init__(self, server: WebServer, packages: Packages, folder: Path):
        self.server, self.packages = server, packages
        self.camera = Camera(NAME, "", folder, SCRIPTS, packages.build)
        self.camera.make({"rootfs": 1}, {})
        (folder / "boot_id").write_text(f"{secrets.token_hex(16)}\n")

    def has(self, running: Path, other: Path, room: int) -> None:
        """Puts images into both copies of the partition, which has `room` bytes."""
        for name, image in (("running", running), ("flash/rootfs", other)):
            fill(self.camera.folder / name, image, room)
        self.images = {"A": running, "B": other}

    def prepare(self, url: str, indexed: bool) -> None:
        """Removes what the last download left. `indexed`: the camera has the indexes of both copies, as after
        earlier downloads."""
        folder = self.camera.folder
        settings = {"server": url, "controller-id": NAME, "keyring": self.packages.keys / "root.pem",
                    "compatible": COMPATIBLE, "version-file": "/etc/camera_version"}
        (folder / "agent.conf").write_text("".join(f"{name} = {value}\n" for name, value in settings.items()))
        for leftover in (folder / "card/ota", folder / "config/agent"):
            shutil.rmtree(leftover, ignore_errors=True)
            leftover.mkdir()
        for slot, image in self.images.items() if indexed else ():
            shutil.copyfile(self.packages.index(image), folder / f"config/agent/rootfs.{slot}.chunks")

    def download(self, image: Path, package: list[Path], url: str = "", indexed: bool = True) -> dict[str, float]:
        """Downloads until the request is posted. Returns also the agent's peak memory in KiB and its CPU time in
        seconds, and the transferred bytes. `url`: of the server, if the line is slow."""
        folder = self.camera.folder
        self.prepare(url or self.server.url, indexed)
        self.server.offer(package, url or self.server.url)
        subprocess.run(["sync"], check=True)  # otherwise the agent's flush would write what others have written
        run = Run(self.camera.command("bash", "-c", START_CAMERA, "start", folder,
                                      self.packages.build / "bench/measure"), folder / "agent.txt")
        try:
            taken = run.measure(b"request posted", bool(url))
            # Otherwise the agent would follow the upgrade, at whose end the service deletes the image.
            for agent in run.processes.each("corvo_agent"):
                os.kill(int(agent.name), signal.SIGTERM)
            run.process.wait(LONGEST)
        finally:
            run.close()
        if not filecmp.cmp(image, folder / "card/ota/agent" / IMAGE, shallow=False):
            raise RuntimeError("the agent has downloaded another image")
        return {**json.loads((folder / "taken").read_text()), **taken, "bytes": self.server.transferred()}


class DeltaSwupdate:
    """A camera with swupdate and its handler for deltas. The server has the image as a zchunk file, and a package
    with the head of that file."""

    needs = ("swupdate", "swupdate-client", "zck", "zck_read_header", "openssl", "cpio", "curl")

    def __init__(self, server: WebServer, folder: Path):
        self.server, self.folder = server, folder
        self.source, self.target = folder / "source", folder / "target"
        folder.mkdir(parents=True)
        rivals.make_signer()

    def package(self, image: Path, url: str) -> Path:
        chunks = self.server.files / f"{image.stem}.zck"
        if not chunks.exists():
            subprocess.run(["zck", "-o", chunks, "-u", "--chunk-hash-type", "sha256", image], check=True,
                           stdout=subprocess.DEVNULL)
        head = self.folder / "image.head"
        size = int(re.search(r"Header size: (\d+)", subprocess.run(
            ["zck_read_header", "-v", chunks], check=True, capture_output=True, text=True).stdout)[1])
        with open(chunks, "rb") as file:
            head.write_bytes(file.read(size))
        properties = (f'url = "{url}/{chunks.name}"; source = "{self.source}"; chain = "raw"; '
                      'zckloglevel = "error";')
        return rivals.sign_package(self.folder, head, (
            f'device = "{self.target}"; type = "delta"; properties: {{ {properties} }}'))

    def has(self, running: Path, room: int) -> None:
        fill(self.source, running, room)
        self.room = room

    def download(self, image: Path, url: str = "") -> dict[str, float]:
        """Downloads into the partition. `url`: of the server, if the line is slow."""
        self.target.write_bytes(bytes(self.room))
        package = self.package(image, url or self.server.url)
        self.server.publish([package])
        subprocess.run(["sync"], check=True)
        run = Run([SCRIPTS / "private_root", "bash", "-c", START_SWUPDATE, "start", rivals.SIGNER / "cert.pem",
                   f"{url or self.server.url}/{package.name}"], self.folder / "swupdate.txt")
        try:
            taken = run.measure(b"SWUPDATE successful !", bool(url))
        finally:
            run.close()
        # Its exit status is not reliable.
        if subprocess.run(["cmp", "-s", "-n", str(image.stat().st_size), image, self.target]).returncode != 0:
            raise RuntimeError("swupdate has written another image")
        return {**taken, "bytes": self.server.transferred()}


def in_place(image: Path, folder: Path) -> None:
    """Puts an image into a folder from which a package is made."""
    (folder / IMAGE).hardlink_to(image)


def fill(partition: Path, image: Path, room: int) -> None:
    partition.unlink(missing_ok=True)
    shutil.copyfile(image, partition)
    os.truncate(partition, room)


def digest_of(file: Path) -> str:
    with open(file, "rb") as content:
        return hashlib.file_digest(content, "sha256").hexdigest()
