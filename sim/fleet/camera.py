"""A played camera, seen from outside: a folder with what survives a restart, and the process that is
one life of it."""
import hashlib
import json
import os
import re
import shutil
import subprocess
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from typing import ClassVar

from server import DIES_WITH_US

MOST_LIVES = 30
OLD_VERSION = "1.0"
PLATFORM_FACTORY_BYTES = 65536
AGENT_LINE = re.compile(r"^action (\S+): (.*?)(?:,? (\d+) %)?$")
# What the service prints, in the words of the table.
SERVICE_LINES = (
    (re.compile(r"UPGRADE_LUMO_RECV_MSG"), "stopping the applications"),
    (re.compile(r"upgrade \S*/(\S+?)(?:\.\w+)? start, moudle type"), "writing {}"),
    (re.compile(r"partition: (\S+) upgrade success"), "reading {} back"),
    (re.compile(r"AB switch end"), "slot switched"),
    (re.compile(r"Restart the system"), "restarting"),
)
PROGRESS = re.compile(r">>> write flash progress (\d+)%")


class Tail:
    """The whole lines that a growing file has got since the last look."""

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
    SETTLES: ClassVar[float] = 0.0  # seconds after which everything that was done is on its card
    name: str
    token: str
    folder: Path
    scripts: Path
    programs: Path
    group: int = 0
    small: bool = False  # a partition has too little room
    action: str = ""
    stage: str = "off"
    percent: int | None = None
    changes: list[tuple[float, str]] = field(default_factory=list)  # when each stage began
    lives: int = 0
    cuts: int = 0
    fault: str = ""  # why it does not go on
    process: subprocess.Popen | None = None
    held: int = -1  # a pipe that everything inside holds: it ends with the last of it

    def make(self, sizes: dict[str, int], settings: dict[str, str]) -> None:
        """Partitions of so many bytes, full of something to lose."""
        for part in ("config", "card/ota", "flash"):
            (self.folder / part).mkdir(parents=True)
        for name, size in sizes.items():
            (self.folder / "flash" / name).write_bytes(os.urandom(size))
        (self.folder / "flash/nv_factory").write_bytes(bytes(PLATFORM_FACTORY_BYTES))
        (self.folder / "version").write_text(f"{OLD_VERSION}\n")
        (self.folder / "started_slot").write_text("A\n")
        token = self.folder / "config/token"
        token.touch(mode=0o600)
        token.write_text(f"{self.token}\n")
        (self.folder / "agent.conf").write_text(
            "".join(f"{name} = {value}\n" for name, value in settings.items()))
        self.agent, self.service = Tail(self.folder / "agent.txt"), Tail(self.folder / "service.txt")

    def command(self, *more: str) -> list:
        return [self.scripts / "private_root", self.scripts.parent / "sim/fleet/camera", self.folder,
                self.programs, *more]

    def start(self) -> None:
        self.lives += 1
        (self.folder / "boot_id").write_text(f"{uuid.uuid4()}\n")
        self.held, inside = os.pipe()
        with open(self.folder / "camera.txt", "ab") as output:
            self.process = subprocess.Popen([*DIES_WITH_US, *self.command()], pass_fds=[inside],
                                            stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=subprocess.STDOUT, start_new_session=True)
        os.close(inside)

    def kill(self) -> None:
        """As lost power does it: everything at once."""
        if self.process is None:
            return
        self.process.kill()
        self.wait()

    def wait(self) -> int:
        status = self.process.wait()
        # Nothing inside may still write when the next life begins on the same files.
        while os.read(self.held, 1):
            pass
        os.close(self.held)
        self.process = None
        return status

    def read(self) -> None:
        """What has been printed since."""
        for line in self.service.lines():
            if progress := PROGRESS.search(line):
                self.percent = int(progress[1])
            for pattern, words in SERVICE_LINES:
                if found := pattern.search(line):
                    self.enter(words.format(*found.groups()))
        for line in self.agent.lines():
            if found := AGENT_LINE.match(line):
                self.action = found[1]
                self.enter(found[2].rstrip(), found[3] and int(found[3]))

    def look(self) -> None:
        """Reads; starts the camera again when it has restarted."""
        self.read()
        if self.process is None or self.process.poll() is None:
            return
        status = self.wait()
        self.read()
        if status == 0 and self.lives < MOST_LIVES:
            self.start()
            return
        self.fault = self.last_words(f"ended with {status} in life {self.lives}")
        self.enter("broken")

    def last_words(self, what: str) -> str:
        said = [f"{self.name}: {what}"]
        for file in ("camera.txt", "agent.txt"):
            text = (self.folder / file).read_text(errors="replace") if (self.folder / file).exists() else ""
            said += [f"  {file}: {line}" for line in text.splitlines()[-3:]]
        return "\n".join(said)

    def enter(self, stage: str, percent: int | None = None) -> None:
        self.percent = percent
        if stage != self.stage:
            self.stage = stage
            self.changes.append((time.monotonic(), stage))

    def state(self) -> dict[str, str]:
        """What the camera itself says, with nothing running on it."""
        said = subprocess.run(self.command("look"), capture_output=True, text=True, errors="replace",
                              stdin=subprocess.DEVNULL)
        state = dict(line.partition(" ")[::2] for line in said.stdout.splitlines())
        try:
            state["agent"] = json.loads(state.get("agent") or "{}")
        except ValueError:
            state["agent"] = {}
        return state

    def digest(self, partition: str, size: int | None = None) -> str:
        """Of its first `size` bytes, or the whole."""
        return hashlib.sha256((self.folder / "flash" / partition).read_bytes()[:size]).hexdigest()

    def remove(self) -> None:
        self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)
