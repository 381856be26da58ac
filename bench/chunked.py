"""Measures downloads of chunked images; started by scripts/bench.

    chunked.py BUILD WORK NGINX     BUILD: the build folder; WORK: a folder on disk

The agent, once with chunked and once with whole images, and swupdate with its handler for deltas download the same
images from the same web server.
"""
import json
import os
import shutil
import statistics
import subprocess
import sys
from dataclasses import asdict
from pathlib import Path

import images
import record
import rivals
from chunked_world import AgentCamera, DeltaSwupdate, Line, Packages, WebServer, in_place
from fleet_world import MIB
from pairs import LEAST_PAIRS, Row, in_kib, in_seconds, plain_row, print_head, print_row, run_rounds

LINE = 1_250_000  # bytes a second: 10 Mbit/s
ROUND_TRIP = 0.05  # seconds
RELEASES = 5
LARGE, SMALL = 256, 16  # MiB
SPACE_STEP = 4 * MIB  # a partition has at least so much more than its image, and a multiple of it
INDEX_ENTRY, KIB = 32, 1024
PACK_ROUNDS = 3
LEVEL = 19  # of otactl


class Downloads:
    """All parties of a comparison, and the images of the releases."""

    def __init__(self, build: Path, work: Path, nginx: Path):
        self.server = WebServer(nginx, work / "server")
        self.slow = Line(self.server.port, LINE, 0).url
        self.far = Line(self.server.port, LINE, ROUND_TRIP / 2).url
        self.packages = Packages(build, work / "packages")
        self.camera = AgentCamera(self.server, self.packages, work / "camera")
        self.lacking = rivals.missing(*DeltaSwupdate.needs)
        self.other = None if self.lacking else DeltaSwupdate(self.server, work / "swupdate")

    def has(self, running: Path, other: Path, largest: Path) -> None:
        """Prepares the cameras: images in the running and in the other copy of the partition, which has space for
        `largest`."""
        room = (largest.stat().st_size // SPACE_STEP + 2) * SPACE_STEP
        self.camera.has(running, other, room)
        if self.other:
            self.other.has(running, room)

    def chunked(self, image: Path, url: str = "", indexed: bool = True) -> dict[str, float]:
        return self.camera.download(image, self.packages.chunked(image), url, indexed)

    def whole(self, image: Path, url: str = "") -> dict[str, float]:
        return self.camera.download(image, self.packages.whole(image), url)

    def delta(self, image: Path, url: str = "") -> dict[str, float]:
        return self.other.download(image, url)


def in_mb(count: float) -> str:
    return f"{count / 1e6:.2f} MB"


# --- one release ----------------------------------------------------------------------------------

def counted_row(figure: str, ours: float, baseline: float, goal: float | None = None) -> Row:
    return Row(figure, in_mb(ours), in_mb(baseline), ours / baseline, goal, counted=True)


def slow_rows(downloads: Downloads, image: Path) -> list[Row]:
    """A line with 10 Mbit/s."""
    things = {"chunked": lambda: downloads.chunked(image, downloads.slow)}
    if downloads.other:
        things["delta"] = lambda: downloads.delta(image, downloads.slow)
    things["whole"] = lambda: downloads.whole(image, downloads.slow)
    things["unindexed"] = lambda: downloads.chunked(image, downloads.slow, indexed=False)
    rounds = run_rounds(things, seconds=0)
    what = "release, chunked"
    rows = [counted_row(f"{what}: bytes over the air / whole image", rounds.median("chunked", "bytes"),
                        rounds.median("whole", "bytes"), 0.12)]
    if downloads.other:
        rows.append(counted_row(f"{what}: bytes over the air / swupdate's delta", rounds.median("chunked", "bytes"),
                                rounds.median("delta", "bytes"), 0.85))
    rows.append(rounds.row(f"{what}, 10 Mbit/s: offer to request / whole image", "chunked", "whole", "wall",
                           in_seconds, 0.25))
    if not downloads.other:
        return [*rows, Row(f"{what} / swupdate's delta", note=downloads.lacking)]
    return [*rows,
            rounds.row(f"{what}, 10 Mbit/s: offer to request / swupdate's delta", "chunked", "delta", "wall",
                       in_seconds, 1),
            rounds.row(f"{what}, 10 Mbit/s, indexes not stored: offer to request / swupdate's delta", "unindexed",
                       "delta", "wall", in_seconds),
            rounds.row(f"{what}: peak memory of all processes / swupdate's delta", "chunked", "delta", "memory",
                       in_kib, 0.8)]


def far_rows(downloads: Downloads, image: Path) -> list[Row]:
    """A line with 10 Mbit/s on which each answer arrives later."""
    if not downloads.other:
        return []
    rounds = run_rounds({"chunked": lambda: downloads.chunked(image, downloads.far),
                         "delta": lambda: downloads.delta(image, downloads.far)}, seconds=0)
    return [rounds.row(f"release, chunked, 10 Mbit/s, round trip {1000 * ROUND_TRIP:.0f} ms: offer to request / "
                       "swupdate's delta", "chunked", "delta", "wall", in_seconds)]


def cpu_rows(downloads: Downloads, image: Path) -> list[Row]:
    rounds = run_rounds({"chunked": lambda: downloads.chunked(image), "whole": lambda: downloads.whole(image),
                         "unindexed": lambda: downloads.chunked(image, indexed=False)}, "cpu", seconds=60)
    what = "release, chunked"
    return [rounds.row(f"{what}: CPU time of the agent / whole image", "chunked", "whole", "cpu", in_seconds, 1.5),
            rounds.row(f"{what}, indexes not stored: CPU time of the agent / whole image", "unindexed", "whole", "cpu",
                       in_seconds)]


# --- several releases -----------------------------------------------------------------------------

def series(downloads: Downloads, releases: list[Path]) -> dict[str, list[int]]:
    """Returns what each release transfers to a camera that gets all of them."""
    taken: dict[str, list[int]] = {"whole image": [], "swupdate's delta": [], "chunked image": []}
    for number, image in enumerate(releases[1:]):
        downloads.has(releases[number], releases[max(number - 1, 0)], image)
        taken["whole image"].append(int(downloads.whole(image)["bytes"]))
        if downloads.other:
            taken["swupdate's delta"].append(int(downloads.delta(image)["bytes"]))
        taken["chunked image"].append(int(downloads.chunked(image)["bytes"]))
    return {name: counts for name, counts in taken.items() if counts}


def series_rows(taken: dict[str, list[int]]) -> list[Row]:
    ours = sum(taken["chunked image"])
    return [counted_row(f"{RELEASES} releases, chunked: bytes over the air / {name}", ours, sum(counts))
            for name, counts in taken.items() if name != "chunked image"]


# --- memory, and pack -----------------------------------------------------------------------------

def chunks_of(downloads: Downloads, image: Path) -> int:
    return downloads.packages.index(image).stat().st_size // INDEX_ENTRY - 1


def memory_rows(downloads: Downloads, work: Path) -> list[Row]:
    """Peak memory of the agent's process. The camera has no stored index, so the partitions are cut, too."""
    peaks: dict[int, list[tuple[float, float]]] = {}
    for mib in (LARGE, SMALL):
        old, new = images.uncompressed(work, mib)
        downloads.has(old, old, new)
        peaks[mib] = [(downloads.chunked(new, indexed=False)["peak"], downloads.whole(new)["peak"])
                      for _ in range(LEAST_PAIRS)]
    entries = chunks_of(downloads, images.uncompressed(work, LARGE)[1]) - chunks_of(
        downloads, images.uncompressed(work, SMALL)[1])
    large, small = peaks[LARGE], peaks[SMALL]
    return [plain_row(f"{LARGE} MiB, chunked: peak memory above a whole image's",
                      [(chunked - whole) / KIB for chunked, whole in large], 2, "MiB", 2,
                      ours=in_kib(statistics.median(chunked for chunked, _ in large)),
                      baseline=in_kib(statistics.median(whole for _, whole in large)), counted=True),
            plain_row(f"{SMALL}, {LARGE} MiB, chunked: peak memory grows by, less 32 bytes a chunk",
                      [one - other - entries * INDEX_ENTRY / KIB for (one, _), (other, _) in zip(large, small)],
                      256, "KiB", counted=True)]


def pack_rows(downloads: Downloads, image: Path, release: Path, work: Path) -> list[Row]:
    """Compares with zstd, which compresses the whole image."""
    packages, folder, compressed = downloads.packages, work / "packed", work / "compressed"
    folder.mkdir()
    in_place(image, folder)
    zstd = ["zstd", "-q", "-f", f"-{LEVEL}", f"-T{os.cpu_count()}"]

    def measured(*command) -> dict[str, float]:
        result = work / "taken"
        subprocess.run([packages.build / "bench/measure", result, *command], check=True,
                       stdout=subprocess.DEVNULL)
        return json.loads(result.read_text())

    def size_row(of: Path, what: str) -> Row:
        """`compressed` is that image, compressed by zstd."""
        frames, = (file for file in packages.chunked(of) if file.suffix == ".zst")
        return counted_row(f"{what}: size of .zst / zstd -{LEVEL} of the whole image", frames.stat().st_size,
                           compressed.stat().st_size)

    rounds = run_rounds({"pack": lambda: measured(*packages.command(folder, "--chunked")),
                         "zstd": lambda: measured(*zstd, image, "-o", compressed)}, seconds=0, least=PACK_ROUNDS)
    rows = [rounds.row(f"otactl pack --chunked of {LARGE} MiB: wall / zstd -{LEVEL} -T{os.cpu_count()}", "pack",
                       "zstd", "wall", in_seconds, 1.3),
            size_row(image, f"{LARGE} MiB, not compressed")]
    subprocess.run([*zstd, release, "-o", compressed], check=True)
    return [*rows, size_row(release, "release")]


def main() -> int:
    build, work, nginx = (Path(argument).resolve() for argument in sys.argv[1:4])
    rows: list[Row] = []

    def show(found: list[Row]) -> None:
        for row in found:
            rows.append(row)
            print_row(row, sys.stdout)

    about = record.machine()
    print("\n".join(about))
    folder = work / "chunked"
    shutil.rmtree(folder, ignore_errors=True)
    rivals.SIGNER = folder / "signer"
    folder.mkdir()
    downloads = Downloads(build, folder, nginx)
    try:
        print_head(sys.stdout)
        releases = images.releases(work / "images", RELEASES)
        downloads.has(releases[0], releases[0], releases[1])
        show(cpu_rows(downloads, releases[1]))
        show(slow_rows(downloads, releases[1]))
        show(far_rows(downloads, releases[1]))
        taken = series(downloads, releases)
        show(series_rows(taken))
        show(memory_rows(downloads, work / "images"))
        show(pack_rows(downloads, images.uncompressed(work / "images", LARGE)[1], releases[1], folder))
    finally:
        downloads.server.close()
        shutil.rmtree(folder, ignore_errors=True)
    (work / "chunked.json").write_text(json.dumps(
        {"machine": about, "of": "chunked images", "releases": taken,
         "rows": [{**asdict(row), "verdict": row.verdict()} for row in rows]}, indent=1))
    return 1 if any(row.verdict() == "NO" for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
