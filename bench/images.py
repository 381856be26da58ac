"""Makes images of a root file system and of its releases, from packages of Debian 12 for the camera's architecture.

    images.py FOLDER [RELEASES]     writes release-0.squashfs to release-RELEASES.squashfs (default 1) into FOLDER

The first image has 130 MB of files that are chosen from the packages. For each release, 1 % of these files get an
insertion of some 200 bytes in the middle, one library is changed in 40 places, and 50 files are added. The choice
has a fixed seed, so the same packages always make the same images. An image that exists is not made again.
"""
import os
import random
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

SEED = 1
# What the root file system of a camera may contain, and enough for several releases.
PACKAGES = """
    alsa-utils avahi-daemon bash bluez busybox ca-certificates chrony coreutils curl dbus e2fsprogs ffmpeg gdbserver
    gstreamer1.0-plugins-bad gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-tools i2c-tools iproute2
    iptables kmod libaom3 libavcodec59 libavfilter8 libavformat59 libavutil57 libc6 libcurl4 libdav1d6 libglib2.0-0
    libgstreamer-plugins-bad1.0-0 libgstreamer-plugins-base1.0-0 libgstreamer1.0-0 libicu72 libopencv-core406
    libopencv-dnn406 libopencv-imgproc406 libopencv-objdetect406 libprotobuf32 libpython3.11-minimal
    libpython3.11-stdlib libsqlite3-0 libssl3 libstdc++6 libswscale6 libsystemd-shared libvpx7 libx264-164 libx265-199
    libxml2 libzstd1 mosquitto mtd-utils nftables nginx openssh-client openssh-server openssl python3.11-minimal
    strace systemd tcpdump udev util-linux v4l-utils wpasupplicant zlib1g
""".split()
NOT_ON_CAMERAS = ("usr/share/doc", "usr/share/info", "usr/share/lintian", "usr/share/locale", "usr/share/man")
MACHINE = [Path("/usr/bin"), Path("/usr/sbin"), Path("/usr/lib"), Path("/usr/share")]
FIRST_BYTES = 130_000_000
LARGEST_FILE = 12_000_000
CHANGED_PART, INSERTED = 100, (150, 250)  # one file of so many; bytes of an insertion
LIBRARIES, PLACES, PLACE_BYTES = 10, 40, 8  # the changed library is one of the largest
ADDED = 50
MIB = 1 << 20
CHECKOUT = Path(__file__).resolve().parents[1]


def shuffled_files(chooser: random.Random, tops: list[Path]) -> Iterator[Path]:
    """Returns the usable files of these folders. Ends the program when there are no more."""
    found = [Path(folder, name) for top in tops for folder, _, names in os.walk(top) for name in names]
    usable = sorted(file for file in found if file.is_file() and not file.is_symlink()
                    and 0 < file.stat().st_size < LARGEST_FILE)
    chooser.shuffle(usable)
    yield from usable
    sys.exit(f"images: {tops[0]} has too few files")


def unpack_packages(folder: Path) -> None:
    """Unpacks the packages into a folder that does not exist yet."""
    debs = CHECKOUT / "build" / "debs"
    if subprocess.run([CHECKOUT / "scripts" / "fetch_debs", debs, *PACKAGES], check=False).returncode != 0:
        sys.exit("images: the packages with the files of the images cannot be downloaded")
    for package in PACKAGES:
        subprocess.run(["dpkg-deb", "-x", next(debs.glob(f"{package}_*.deb")), folder], check=True)
    for name in NOT_ON_CAMERAS:
        shutil.rmtree(folder / name, ignore_errors=True)


class Tree:
    """A folder with the files of a release."""

    def __init__(self, folder: Path, packages: Path):
        self.folder, self.packages, self.chooser = folder, packages, random.Random(SEED)
        self.source = shuffled_files(self.chooser, [packages])
        self.files: list[Path] = []
        size = 0
        while size < FIRST_BYTES:
            size += self.add()

    def add(self) -> int:
        file = next(self.source)
        copy = self.folder / file.relative_to(self.packages)
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(file, copy)
        copy.chmod(0o755 if file.stat().st_mode & 0o100 else 0o644)
        self.files.append(copy)
        return copy.stat().st_size

    def change(self) -> None:
        """Makes the next release."""
        for file in self.chooser.sample(self.files, len(self.files) // CHANGED_PART):
            content = file.read_bytes()
            middle = len(content) // 2
            inserted = self.chooser.randbytes(self.chooser.randint(*INSERTED))
            file.write_bytes(content[:middle] + inserted + content[middle:])
        libraries = sorted((file for file in self.files if ".so" in file.name),
                           key=lambda file: (-file.stat().st_size, file))
        library = self.chooser.choice(libraries[:LIBRARIES])
        library.write_bytes(patched(self.chooser, library.read_bytes()))
        for _ in range(ADDED):
            self.add()

    def write(self, image: Path) -> None:
        # Without these options the image would contain the time, users and attributes of this machine.
        fixed = ("-all-time", "0", "-mkfs-time", "0", "-all-root", "-no-xattrs")
        part = image.with_suffix(".part")
        part.unlink(missing_ok=True)
        subprocess.run(["mksquashfs", self.folder, part, "-comp", "zstd", *fixed, "-no-progress", "-quiet"],
                       check=True, stdout=subprocess.DEVNULL)
        part.rename(image)


def patched(chooser: random.Random, content: bytes) -> bytes:
    changed = bytearray(content)
    for _ in range(PLACES):
        at = chooser.randrange(len(changed) - PLACE_BYTES)
        changed[at:at + PLACE_BYTES] = chooser.randbytes(PLACE_BYTES)
    return bytes(changed)


def releases(folder: Path, count: int) -> list[Path]:
    """Returns the images of the first release and of `count` others."""
    folder.mkdir(parents=True, exist_ok=True)
    images = [folder / f"release-{number}.squashfs" for number in range(count + 1)]
    if all(image.exists() for image in images):
        return images
    for name in ("tree", "packages"):
        shutil.rmtree(folder / name, ignore_errors=True)
    unpack_packages(folder / "packages")
    tree = Tree(folder / "tree", folder / "packages")
    for number, image in enumerate(images):
        if number > 0:
            tree.change()
        if not image.exists():
            tree.write(image)
    for name in ("tree", "packages"):
        shutil.rmtree(folder / name)
    return images


def uncompressed(folder: Path, mib: int) -> list[Path]:
    """Returns an image of this size, in which nothing is compressed, and its successor. Its files are
    those of this machine: what is measured with it depends on its size."""
    images = [folder / f"{name}-{mib}.img" for name in ("old", "new")]
    if all(image.exists() for image in images):
        return images
    folder.mkdir(parents=True, exist_ok=True)
    chooser = random.Random(SEED)
    content = bytearray()
    for file in shuffled_files(chooser, MACHINE):
        content += file.read_bytes()
        if len(content) >= mib * MIB:
            break
    images[0].write_bytes(content[:mib * MIB])
    images[1].write_bytes(patched(chooser, content[:mib * MIB]))
    return images


def main() -> None:
    if not 2 <= len(sys.argv) <= 3:
        sys.exit(__doc__)
    for image in releases(Path(sys.argv[1]), int(sys.argv[2]) if len(sys.argv) > 2 else 1):
        print(image)


if __name__ == "__main__":
    main()
