"""A simulated camera: a folder with the storage that survives a restart, and a process that runs the camera
from one start to the next restart."""
import hashlib
import json
import os
import re
import shutil
import subprocess
import time
import uuid
from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, ClassVar

from package import make_image
from server import DIES_WITH_PARENT

STARTS_MAX = 30
OLD_VERSION = "1.0"
PLATFORM_FACTORY_BYTES = 65536
AGENT_LINE = re.compile(r"^action (\S+): (.*?)(?:,? (\d+) %)?$")
ERROR_LINE = re.compile(r"^corvo_agent: (.*)")
RECOVERED = "recovered"  # the agent's line after an error has ended
STOPPING, SWITCHED = "stopping the applications", "slot switched"
# Lines of the service's output, and the stage that the table shows for each.
SERVICE_LINES = (
    (re.compile(r"UPGRADE_LUMO_RECV_MSG"), STOPPING),
    (re.compile(r"upgrade \S*/(\S+?)(?:\.\w+)? start, moudle type"), "writing {}"),
    (re.compile(r"partition: (\S+) upgrade success"), "reading {} back"),
    (re.compile(r"AB switch end"), SWITCHED),
    (re.compile(r"Restart the system"), "restarting"),
)
PROGRESS = re.compile(r">>> write flash progress (\d+)%")


class Tail:
    """Reads the complete lines that were appended to a file since the last call."""

    def __init__(self, file: Path):
        self.file, self.at = file, 0

    def lines(self) -> list[str]:
        try:
            with open(self.file, "rb") as read:
                read.seek(self.at)
                text = read.read()
        except FileNotFoundError:
            return []
        whole = text[:text.rfind(b"\n") + 1]
        self.at += len(whole)
        return whole.decode(errors="replace").splitlines()


@dataclass
class Camera:
    SETTLES: ClassVar[float] = 0.0  # seconds until all changes have been written to its card
    name: str
    token: str
    folder: Path
    scripts: Path
    programs: Path
    group: int = 0
    small: bool = False  # a partition is too small for its image
    needed: str = ""  # a file in /config that this camera has and the new system needs
    doubled: Iterable[str] = ()  # the partitions that have two copies, one for each slot
    action: str = ""
    stage: str = "off"
    percent: int | None = None
    changes: list[tuple[float, str]] = field(default_factory=list)  # when each stage began
    errors: list[tuple[float, str]] = field(default_factory=list)  # the agent's errors, and RECOVERED after each
    starts: int = 0
    cuts: int = 0  # power cuts so far
    fault: str = ""  # why the camera cannot continue
    process: subprocess.Popen | None = None
    held: int = -1  # read end of a pipe that all processes inside inherit; end of file when all have ended

    def make(self, sizes: dict[str, int], settings: dict[str, str]) -> None:
        """Creates the camera. `sizes`: size of each partition in bytes; they get random content, so that lost
        data is detected. Of two copies, that of slot A gets a whole image of the old version."""
        for part in ("config", "card/ota", "flash"):
            (self.folder / part).mkdir(parents=True)
        for name, size in sizes.items():
            for partition in self.copies(name):
                image = make_image(OLD_VERSION, size) if partition == f"{name}_a" else os.urandom(size)
                (self.folder / "flash" / partition).write_bytes(image)
        if self.doubled:
            (self.folder / "slots.conf").write_text(
                f"doubled = {' '.join(self.doubled)}\nslot-from = command-line\n"
                "word-a = bootsystem=A\nword-b = bootsystem=B\n")
        self.provide_needed()
        (self.folder / "flash/nv_factory").write_bytes(bytes(PLATFORM_FACTORY_BYTES))
        (self.folder / "version").write_text(f"{OLD_VERSION}\n")
        (self.folder / "started_slot").write_text("A\n")
        token = self.folder / "config/token"
        token.touch(mode=0o600)
        token.write_text(f"{self.token}\n")
        (self.folder / "agent.conf").write_text(
            "".join(f"{name} = {value}\n" for name, value in settings.items()))
        self.agent, self.service = Tail(self.folder / "agent.txt"), Tail(self.folder / "service.txt")

    def provide_needed(self) -> None:
        if self.needed:
            (self.folder / "config" / self.needed).touch()

    def copies(self, name: str) -> list[str]:
        """Returns the partitions that a name of the package table stands for; the one that the first upgrade
        writes is the last."""
        return [f"{name}_a", f"{name}_b"] if name in self.doubled else [name]

    def command(self, *more: str) -> list:
        return [self.scripts / "private_root", self.scripts.parent / "sim/fleet/camera", self.folder,
                self.programs, *more]

    def start(self) -> None:
        self.starts += 1
        self.errors.append((time.monotonic(), RECOVERED))  # the new agent prints an error that still exists again
        (self.folder / "boot_id").write_text(f"{uuid.uuid4()}\n")
        self.held, inside = os.pipe()
        with open(self.folder / "camera.txt", "ab") as output:
            self.process = subprocess.Popen([*DIES_WITH_PARENT, *self.command()], pass_fds=[inside],
                                            stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=subprocess.STDOUT, start_new_session=True)
        os.close(inside)

    def kill(self) -> None:
        """Kills all processes at once, as a power cut does."""
        if self.process is None:
            return
        self.process.kill()
        self.wait()

    def wait(self) -> int:
        status = self.process.wait()
        # Wait for all processes inside, so that none still writes when the next start uses the same files.
        while os.read(self.held, 1):
            pass
        os.close(self.held)
        self.process = None
        return status

    def read_output(self) -> None:
        """Reads the new output of service and agent, and updates the stage."""
        for line in self.service.lines():
            if progress := PROGRESS.search(line):
                self.percent = int(progress[1])
            for pattern, stage in SERVICE_LINES:
                if found := pattern.search(line):
                    self.enter(stage.format(*found.groups()))
        for line in self.agent.lines():
            if found := AGENT_LINE.match(line):
                self.action = found[1]
                self.enter(found[2].rstrip(), found[3] and int(found[3]))
                self.errors.append((time.monotonic(), RECOVERED))  # it continues, as yet without that line
            elif found := ERROR_LINE.match(line):
                self.errors.append((time.monotonic(), found[1]))

    def update(self) -> None:
        """Reads the output, and starts the camera again if it asked for a restart."""
        self.read_output()
        if self.process is None or self.process.poll() is None:
            return
        status = self.wait()
        self.read_output()
        if status == 0 and self.starts < STARTS_MAX:
            self.start()
            return
        self.fault = self.last_output(f"ended with status {status} after start {self.starts}")
        self.enter("broken")

    def last_output(self, what: str) -> str:
        lines = [f"{self.name}: {what}"]
        for file in ("camera.txt", "agent.txt"):
            text = (self.folder / file).read_text(errors="replace") if (self.folder / file).exists() else ""
            lines += [f"  {file}: {line}" for line in text.splitlines()[-3:]]
        return "\n".join(lines)

    def enter(self, stage: str, percent: int | None = None) -> None:
        self.percent = percent
        if stage != self.stage:
            self.stage = stage
            self.changes.append((time.monotonic(), stage))

    def state(self) -> dict[str, Any]:
        """Returns the state that the camera itself reports. Call only while it is off."""
        done = subprocess.run(self.command("look"), capture_output=True, text=True, errors="replace",
                              stdin=subprocess.DEVNULL)
        state = dict(line.partition(" ")[::2] for line in done.stdout.splitlines())
        for program in ("agent", "commit"):
            try:
                state[program] = json.loads(state.get(program) or "{}")
            except ValueError:
                state[program] = {}
        return state

    def digest(self, partition: str, size: int | None = None) -> str:
        """Returns the SHA-256 of the first `size` bytes of a partition, or of the whole partition."""
        return hashlib.sha256((self.folder / "flash" / partition).read_bytes()[:size]).hexdigest()

    def remove(self) -> None:
        self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)
