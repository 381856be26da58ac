"""The packages of rollouts: images of random bytes and a signed manifest. The first line of an image is its
version, and the size and SHA-256 of the rest, which the stand-in of the boot loader checks (sim/boot_loader)."""
import hashlib
import os
import subprocess
from pathlib import Path

KIB = 1024
COMPATIBLE = "R5C20"
NEW_VERSION = "2.0"
NEXT_VERSION = "3.0"  # of the second rollout with chunked images
# The sizes are not multiples of any block size, so that a lost tail is detected.
IMAGES = {"kernel": 1100 * KIB + 7, "rootfs": 3000 * KIB + 11, "system": 2000 * KIB + 13}
PARTITIONS = {name: size + 100 * KIB for name, size in IMAGES.items()}
TOO_SMALL = {**PARTITIONS, "rootfs": IMAGES["rootfs"] - 512}


def make_image(version: str, size: int, text: str = "", before: bytes = b"") -> bytes:
    """Returns an image of this size in bytes, at least 200. `text` is a line after the first one, for
    sim/health_check. With the image `before` of the same size, it is like that one, but a part has other bytes,
    and a part was moved."""
    # The digest has a fixed length, and sizes are padded, so the length of the line is known in advance.
    rest = f"{text}\n".encode() if text else b""
    length = size - len(f"{version} {size:>10} {'':64}\n") - len(rest)
    more = bytearray(before[-length:] if before else os.urandom(length))
    if before:
        third, part = length // 3, length // 50
        more[third:third + part] = os.urandom(part)
        more += more[:part]
        del more[:part]
    rest += more
    return f"{version} {len(rest):>10} {hashlib.sha256(rest).hexdigest()}\n".encode() + rest


class Package:
    def __init__(self, folder: Path, programs: Path, scripts: Path):
        self.folder, self.programs = folder / "packages", programs
        self.folder.mkdir()
        self.keys = folder / "maker"
        self.keyring = self.keys / "root.pem"
        subprocess.run([scripts / "make_pki", self.keys], check=True)

    def make(self, version: str, needed: str = "", chunked: bool = False, before: str = "") -> list[Path]:
        """Creates the package of a version and returns all files that are uploaded. Without the file `needed` on
        the camera the new system is unhealthy. `before`: the version whose images are changed a little."""
        folder = self.folder / version
        folder.mkdir()
        self.images: dict[str, Path] = {}
        names = dict(line.split()[1:3] for line in subprocess.run(
            [self.programs / "otactl", "modules"], check=True, capture_output=True,
            text=True).stdout.splitlines())
        for partition, size in IMAGES.items():
            text = f"needs {needed}" if needed and partition == "rootfs" else ""
            old = (self.folder / before / names[partition]).read_bytes() if before else b""
            self.images[partition] = folder / names[partition]
            self.images[partition].write_bytes(make_image(version, size, text, old))
        subprocess.run([self.programs / "otactl", "pack", "files", "--dir", folder,
                        *(["--chunked"] if chunked else []),
                        "--compatible", COMPATIBLE, "--version", version,
                        "--key", self.keys / "signer.key", "--certificate",
                        self.keys / "signer.pem", "--intermediate", self.keys / "authority.pem",
                        *IMAGES], check=True, stdout=subprocess.DEVNULL)
        unused = self.images.values() if chunked else ()
        return sorted(file for file in folder.iterdir() if file not in unused)
