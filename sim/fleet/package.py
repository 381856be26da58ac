"""The package of a rollout: images of random bytes and a signed manifest. The first line of an image is its
version, and the size and SHA-256 of the rest, which the stand-in of the boot loader checks (sim/boot_loader)."""
import hashlib
import os
import subprocess
from pathlib import Path

KIB = 1024
COMPATIBLE = "R5C20"
NEW_VERSION = "2.0"
# The sizes are not multiples of any block size, so that a lost tail is detected.
IMAGES = {"kernel": 1000 * KIB + 7, "rootfs": 3000 * KIB + 11, "system": 2000 * KIB + 13}
PARTITIONS = {name: size + 100 * KIB for name, size in IMAGES.items()}
TOO_SMALL = {**PARTITIONS, "rootfs": IMAGES["rootfs"] - 512}


def make_image(version: str, size: int, text: str = "") -> bytes:
    """Returns an image of this size in bytes, at least 200. `text` is a line after the first one, for
    sim/health_check."""
    # The digest has a fixed length, and sizes are padded, so the length of the line is known in advance.
    rest = f"{text}\n".encode() if text else b""
    rest += os.urandom(size - len(f"{version} {size:>10} {'':64}\n") - len(rest))
    return f"{version} {len(rest):>10} {hashlib.sha256(rest).hexdigest()}\n".encode() + rest


class Package:
    def __init__(self, folder: Path, programs: Path, scripts: Path):
        self.folder, self.programs = folder / "package", programs
        self.keys = folder / "maker"
        self.keyring = self.keys / "root.pem"
        subprocess.run([scripts / "make_pki", self.keys], check=True)

    def image(self, partition: str) -> Path:
        return next(self.folder.glob(f"{partition}.[bi]*"))

    def make(self, needed: str = "") -> list[Path]:
        """Creates the package and returns all its files. Without the file `needed` on the camera the new system
        is unhealthy."""
        self.folder.mkdir()
        names = dict(line.split()[1:3] for line in subprocess.run(
            [self.programs / "otactl", "modules"], check=True, capture_output=True,
            text=True).stdout.splitlines())
        for partition, size in IMAGES.items():
            text = f"needs {needed}" if needed and partition == "rootfs" else ""
            (self.folder / names[partition]).write_bytes(make_image(NEW_VERSION, size, text))
        subprocess.run([self.programs / "otactl", "pack", "files", "--dir", self.folder,
                        "--compatible", COMPATIBLE, "--version", NEW_VERSION,
                        "--key", self.keys / "signer.key", "--certificate",
                        self.keys / "signer.pem", "--intermediate", self.keys / "authority.pem",
                        *IMAGES], check=True, stdout=subprocess.DEVNULL)
        return sorted(self.folder.iterdir())
