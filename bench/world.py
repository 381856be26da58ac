"""A simulated camera for measurements: loop devices as partitions, images, a daemon that answers at once, and
runs of the service with the time of each line of its output. Runs only inside scripts/private_root."""
import json
import os
import stat
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

BY_NAME = Path("/dev/block/by-name")
PACKAGES = Path("/media/mmcblk0p1")  # a tmpfs, so that reading an image costs no disk access
IMAGES = PACKAGES / "kept"
KERNEL = PACKAGES / "kernel.bin"
MIB = 1 << 20
SYNCHRONOUS = ("bs=16k", "oflag=dsync", "conv=notrunc")  # options of dd for a copy like the service's


class Programs:
    """The paths of the programs in a build folder."""

    def __init__(self, build: Path):
        self.service = build / "corvo_upgrade"
        self.unpaused = build / "bench/unpaused/corvo_upgrade"
        self.otactl = build / "otactl"
        self.commit = build / "corvo_commit"
        self.bench = build / "bench"
        self.unhardened = build / "unhardened"


class Loops:
    """Loop devices over files."""

    def __init__(self):
        self.files: list[Path] = []
        self.holds: list[int] = []

    def attach(self, file: Path, size: int) -> str:
        """Creates the file and a block device of `size` bytes on it. Raises OSError if the machine has no loop
        device."""
        self.files.append(file)
        with open(file, "wb") as new:
            new.truncate(size)
        for _ in range(5):
            free = subprocess.run(["losetup", "-f"], capture_output=True, text=True)
            device = free.stdout.strip()
            if free.returncode != 0:
                break
            if not os.path.exists(device):
                number = os.makedev(7, int(device.removeprefix("/dev/loop")))
                os.mknod(device, 0o600 | stat.S_IFBLK, number)
            # Another process may have taken the same free device since losetup -f.
            taken = subprocess.run(["losetup", "--direct-io=on", device, str(file)],
                                   capture_output=True)
            if taken.returncode == 0:
                # Detach it but hold it open: the kernel removes it when this process ends, for whatever
                # reason.
                self.holds.append(os.open(device, os.O_RDONLY))
                subprocess.run(["losetup", "-d", device], check=True)
                return device
        raise OSError("loop devices are not available on this machine")

    def detach_all(self) -> None:
        for hold in self.holds:
            os.close(hold)
        for file in self.files:
            file.unlink(missing_ok=True)
        self.holds, self.files = [], []


def random_image(name: str, size: int) -> Path:
    """Returns an image of random bytes; creates it only the first time."""
    file = IMAGES / f"{name}-{size}"
    if not file.exists():
        IMAGES.mkdir(exist_ok=True)
        with open(file, "wb") as new:
            for at in range(0, size, MIB):
                new.write(os.urandom(min(MIB, size - at)))
    return file


def fill(device: str, image: Path) -> None:
    """Writes an image to the device quickly (not synchronously), as the content before the upgrade."""
    subprocess.run(["dd", f"if={image}", f"of={device}", "bs=1M", "conv=fsync,notrunc"],
                   check=True, capture_output=True)
    drop_cache(device)


def erase(device: str) -> None:
    subprocess.run(["blkdiscard", "-f", "-z", device], check=True, capture_output=True)
    subprocess.run(["sync", "-d", device], check=True)


def drop_cache(device: str) -> None:
    subprocess.run(["blockdev", "--flushbufs", device], check=True)


def set_partition(name: str, target: str) -> None:
    node = BY_NAME / name
    node.unlink(missing_ok=True)
    node.symlink_to(target)


def measured(programs: Programs, command: list, quiet: bool = True) -> dict[str, float]:
    """Runs a command to its end and returns the result of measure.cpp."""
    result = Path("/tmp/measured")
    output = subprocess.DEVNULL if quiet else None
    status = subprocess.run([programs.bench / "measure", result, *command], stdout=output,
                            stderr=subprocess.PIPE)
    if status.returncode != 0:
        raise RuntimeError(f"{command} ended with {status.returncode}: {status.stderr.decode()}")
    return json.loads(result.read_text())


def total(*parts: dict[str, float]) -> dict[str, float]:
    """Adds up the results of processes that ran one after the other."""
    return {"wall": sum(p["wall"] for p in parts), "peak": max(p["peak"] for p in parts)}


@dataclass
class Run:
    """One run of the service: the time of each line of output, the end, and the result of measure.cpp."""

    lines: list[tuple[float, str]]
    ended: float
    taken: dict[str, float]

    def when(self, text: str) -> float:
        for at, line in self.lines:
            if text in line:
                return at
        raise RuntimeError(f"the service did not print: {text}\n" +
                           "\n".join(line for _, line in self.lines[-20:]))

    def between(self, first: str, last: str) -> float:
        return self.when(last) - self.when(first)


class Camera:
    def __init__(self, programs: Programs):
        self.programs = programs
        (BY_NAME / "nv_factory").write_bytes(bytes(65536))
        self.daemon = subprocess.Popen([programs.bench / "instant_daemon"],
                                       stdout=subprocess.DEVNULL)
        while not os.path.exists("/tmp/dbus-system.call.daemon"):
            time.sleep(0.01)

    def close(self) -> None:
        self.daemon.kill()
        self.daemon.wait()

    def send_files(self) -> list:
        return [self.programs.otactl, "send", "files", "--dir", f"{PACKAGES}/", "kernel"]

    def upgrade(self, image: Path, program: Path | None = None, under: tuple = ()) -> Run:
        """Runs an upgrade in files mode that writes the image to the partition "kernel". `under`: a command
        that runs the service, such as strace."""
        KERNEL.unlink(missing_ok=True)
        KERNEL.hardlink_to(image)  # a link, because the service deletes the file after the upgrade
        return self.run(self.send_files(), program, under)

    def upgrade_combined(self, image: Path) -> Run:
        package, manifest = PACKAGES / "all.pkg", Path("/tmp/all.manifest")
        subprocess.run([self.programs.otactl, "pack", "--output", package, "--manifest", manifest,
                        f"kernel={image}"], check=True, capture_output=True)
        return self.run([self.programs.otactl, "send", "combined", "--package", package,
                         "--manifest", manifest], None)

    def run(self, send: list, program: Path | None, under: tuple = ()) -> Run:
        result = Path("/tmp/service")
        service = subprocess.Popen([self.programs.bench / "measure", result, *under,
                                    program or self.programs.unpaused], stdout=subprocess.PIPE)
        lines: list[tuple[float, str]] = []
        rest = b""
        while chunk := os.read(service.stdout.fileno(), 65536):
            now = time.monotonic()
            *whole, rest = (rest + chunk).split(b"\n")
            lines += [(now, line.decode(errors="replace")) for line in whole]
            if send and any(b"ota wait for ota message" in line for line in whole):
                subprocess.run(send, check=True, stdout=subprocess.DEVNULL)
                send = []
        ended = time.monotonic()
        service.wait()
        return Run(lines, ended, json.loads(result.read_text()))
