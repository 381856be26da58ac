"""Measures how otactl verifies a signed package, compared with openssl commands that check only the signature or
only the hash."""
import shutil
import statistics
import subprocess
from pathlib import Path

import world
from counted import CALLGRIND, counted_instructions
from pairs import MEMORY_ROUNDS, Row, in_kib, in_seconds, plain_row, run_rounds
from world import MIB, Programs, measured

LARGE, TWICE, SMALL = 256, 32, 16  # MiB
PKI = Path("/run/pki")
MAKE_PKI = Path(__file__).resolve().parents[1] / "scripts/make_pki"


def pack(programs: Programs, size: int) -> Path:
    """Creates a folder with one image of `size` MiB and its signed manifest."""
    folder = world.PACKAGES / f"signed-{size}"
    folder.mkdir()
    world.random_image("signed", size * MIB).rename(folder / "kernel.bin")
    subprocess.run([programs.otactl, "pack", "files", "--dir", folder, "--compatible", "camera",
                    "--version", "1", "--key", PKI / "signer.key", "--certificate",
                    PKI / "signer.pem", "--intermediate", PKI / "authority.pem"],
                   check=True, stdout=subprocess.DEVNULL)
    return folder


def verifier(programs: Programs, folder: Path) -> list:
    return [programs.otactl, "verify", folder, "--any-camera", "--keyring", PKI / "root.pem"]


def manifest_verifier(_: Programs, folder: Path) -> list:
    manifest = folder / "package.manifest"
    return ["openssl", "cms", "-verify", "-binary", "-content", manifest, "-inform", "DER", "-in",
            f"{manifest}.sig", "-CAfile", PKI / "root.pem", "-no-CApath", "-no-CAstore", "-purpose", "any",
            "-out", "/dev/null"]


def hasher(_: Programs, folder: Path) -> list:
    return ["openssl", "dgst", "-sha256", folder / "kernel.bin"]


class Packages:
    """Signed packages of several sizes, which are deleted at the end of the "with" block."""

    def __enter__(self):
        world.PACKAGES.mkdir(parents=True, exist_ok=True)
        subprocess.run([MAKE_PKI, PKI], check=True)
        return self

    def __init__(self, programs: Programs):
        self.programs = programs
        self.folders: dict[int, Path] = {}

    def of(self, size: int) -> Path:
        if size not in self.folders:
            self.folders[size] = pack(self.programs, size)
        return self.folders[size]

    def __exit__(self, *_):
        for folder in self.folders.values():
            shutil.rmtree(folder)

    def peak(self, command, size: int) -> float:
        """Returns the peak memory in KiB."""
        return measured(self.programs, command(self.programs, self.of(size)))["peak"]

    def instructions(self, command) -> float:
        """Returns the instructions per MiB from the difference of two sizes, so that the start of the program
        cancels out."""
        taken = []
        for size in (SMALL, TWICE):
            subprocess.run([*CALLGRIND, *command(self.programs, self.of(size))], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            taken.append(counted_instructions())
        return (taken[1] - taken[0]) / (TWICE - SMALL)


FIGURE = f"signed package of {LARGE} MiB verified"


def counted_rows(programs: Programs) -> list[Row]:
    with Packages(programs) as packages:
        peaks = [[packages.peak(verifier, LARGE), packages.peak(manifest_verifier, LARGE),
                  packages.peak(verifier, SMALL)] for _ in range(MEMORY_ROUNDS)]
        own, other = (packages.instructions(command) for command in (verifier, hasher))
    large, manifest, _ = (in_kib(statistics.median(taken)) for taken in zip(*peaks))
    return [plain_row(f"{FIGURE}: peak memory above openssl cms", [(a - b) / 1024 for a, b, _ in peaks],
                      1, "MiB", 2, ours=large, baseline=manifest, counted=True,
                      note="openssl cms -verify reads the manifest alone"),
            plain_row(f"signed package of {SMALL}, {LARGE} MiB verified: peak memory grows by",
                      [a - b for a, _, b in peaks], 128, "KiB", counted=True),
            Row("instructions per MiB verified / openssl dgst -sha256", f"{own:.0f}",
                f"{other:.0f}", own / other, 1.1, counted=True)]


def timed_row(programs: Programs) -> Row:
    with Packages(programs) as packages:
        folder = packages.of(LARGE)
        rounds = run_rounds(
            {"otactl": lambda: measured(programs, verifier(programs, folder)),
             "openssl": lambda: measured(programs, hasher(programs, folder))})
    return rounds.row(f"{FIGURE}: wall / openssl dgst -sha256", "otactl", "openssl", "wall",
                      in_seconds, 1.1)
