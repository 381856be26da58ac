"""The emulated board as one camera of the fleet. scripts/board creates it, runs it from one start to the next
restart, and reads its state. The board runs the agent that is built for the camera's processor; the init
script starts it as its own user."""
import hashlib
import shutil
import subprocess
from pathlib import Path

from camera import OLD_VERSION, Camera, Tail
from server import HOST

HOST_FROM_BOARD = "10.0.2.2"  # address of the host's loopback in the emulator's network
CARD_KIB = 24576  # size of the memory card, enough for the package
ONCE = ("spl", "uboot", "ota_package")  # modules whose partitions have one copy on every board
OTHER_KIB = 128  # size of partitions that are not in the package


class BoardCamera(Camera):
    SETTLES = 6.0  # the file system may write the removal of a file to the card up to 5 s later

    def make(self, sizes: dict[str, int], settings: dict[str, str | Path]) -> None:
        config = self.folder / "config"
        config.mkdir(parents=True)
        modules = [line.split()[1] for line in subprocess.run(
            [self.programs / "otactl", "modules"], check=True, capture_output=True,
            text=True).stdout.splitlines()]
        if self.doubled:
            self.doubled = [name for name in modules if name not in ONCE]
        # The partitions of the other boards in the same order, but large enough for this package.
        rows: dict[str, int] = {}
        for line in (self.scripts.parent / "sim/board/partitions").read_text().splitlines():
            if line.startswith("modules "):
                rows |= {copy: sizes.get(name, OTHER_KIB * 1024) // 1024
                         for name in modules for copy in self.copies(name)}
            elif not line.startswith("#"):
                name, kib = line.split()
                rows[name] = CARD_KIB if name == "media" else int(kib)
        (self.folder / "partitions").write_text("".join(f"{name} {kib}\n" for name, kib in rows.items()))
        (config / "version").write_text(f"{OLD_VERSION}\n")
        (config / "started_slot").write_text("A\n")
        (config / "token").write_text(f"{self.token}\n")
        self.provide_needed()
        settings["server"] = settings["server"].replace(f"//{HOST}:", f"//{HOST_FROM_BOARD}:")
        # Copy the files that settings name to the board's /config.
        for name, value in settings.items():
            if isinstance(value, Path):
                shutil.copy(value, config / f"{name}.pem")
                settings[name] = f"/config/{name}.pem"
        (config / "agent.conf").write_text(
            "".join(f"{name} = {value}\n" for name, value in settings.items()))
        self.agent, self.service = Tail(self.folder / "agent.txt"), Tail(self.folder / "service.txt")
        # Its output is not captured: it shows what it does, and why it fails.
        if subprocess.run(self.command("make"), stdin=subprocess.DEVNULL).returncode != 0:
            raise OSError("the board cannot be made")

    def command(self, act: str = "run") -> list:
        return [self.scripts / "board", "camera", self.folder, act, *([] if self.doubled else ["--one-copy"])]

    def digest(self, partition: str, size: int | None = None) -> str:
        rows = (line.split() for line in (self.folder / "made/layout").read_text().splitlines())
        first, whole = next((int(row[1]), int(row[2])) for row in rows if row[0] == partition)
        with open(self.folder / "card.img", "rb") as card:
            card.seek(first)
            return hashlib.sha256(card.read(whole if size is None else size)).hexdigest()
