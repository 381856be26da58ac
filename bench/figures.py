"""The timed figures. Each is a ratio of two programs that run alternately; see pairs.py."""
import json
import statistics
import subprocess
from pathlib import Path

import rivals
import world
from pairs import MEMORY_ROUNDS, Row, in_kib, in_ns, in_seconds, interval, plain_row, run_rounds
from world import MIB, SYNCHRONOUS, Camera, Programs, measured, total

START, WRITTEN, COMPARED = " start, moudle type", "upgrade success", "read verify success"


class Module:
    """An upgrade of one module of `size` bytes on a block device of `room` bytes."""

    def __init__(self, programs: Programs, camera: Camera, device: str, size: int, room: int):
        self.programs, self.camera, self.device, self.size = programs, camera, device, size
        self.image = world.random_image("new", size)
        self.old = world.random_image("old", room)
        world.set_partition("kernel", device)

    def service(self) -> dict[str, float]:
        """Measures from the module's first line of output to its last. Memory is that of the whole process."""
        world.fill(self.device, self.old)
        run = self.camera.upgrade(self.image)
        return {**run.taken, "wall": run.between(START, COMPARED),
                "copy": run.between(START, WRITTEN)}

    def combined(self) -> dict[str, float]:
        world.fill(self.device, self.old)
        run = self.camera.upgrade_combined(self.image)
        return {**run.taken, "wall": run.between(START, WRITTEN)}

    def dd(self, *options: str) -> dict[str, float]:
        """Copies with dd to an erased partition, as the service does, and compares with cmp."""
        world.fill(self.device, self.old)
        world.erase(self.device)
        copy = measured(self.programs, ["dd", f"if={self.image}", f"of={self.device}", *options])
        return total(copy, self.cmp())

    def flush_time(self) -> float:
        """Returns the duration of one synchronous 16 KiB write in seconds."""
        world.fill(self.device, self.old)
        copy = measured(self.programs, ["dd", f"if={self.image}", f"of={self.device}",
                                        *SYNCHRONOUS])
        return copy["wall"] / (self.size / 16384)

    def cmp(self) -> dict[str, float]:
        world.drop_cache(self.device)
        return measured(self.programs, ["cmp", "-n", str(self.size), self.image, self.device])

    def compare(self) -> dict[str, float]:
        world.drop_cache(self.device)
        return measured(self.programs,
                        [self.programs.bench / "partition", "compare", "kernel", self.image])

    def rival(self, other) -> dict[str, float]:
        world.fill(self.device, self.old)
        return other.run(self.programs)


def module_figures(module: Module, where: str, seconds: float, only_dd: bool = False,
                   aims: bool = True) -> list[Row]:
    """`aims`: whether the wall times have goals."""
    what = f"{module.size // MIB} MiB, {where}: "
    things = {"ours": module.service,
              "dd": lambda: module.dd(*SYNCHRONOUS)}
    lacking = {"swupdate": rivals.missing(*rivals.Swupdate.needs),
               "rauc": rivals.missing(*rivals.Rauc.needs)}
    if not only_dd:
        things["dd 1M"] = lambda: module.dd("bs=1M", "conv=fsync,notrunc")
        things["combined"] = module.combined
        for name, rival in (("swupdate", rivals.Swupdate), ("rauc", rivals.Rauc)):
            if not lacking[name]:
                other = rival(module.image, module.device)
                things[name] = lambda other=other: module.rival(other)
    rounds = run_rounds(things, "wall", seconds)
    rows = [rounds.row(what + "wall / dd bs=16k oflag=dsync, cmp", "ours", "dd", "wall", in_seconds,
                       1.03 if aims else None)]
    if only_dd:
        return rows
    rows.append(rounds.row(what + "combined mode / files mode without read-back", "combined",
                           "ours", "wall", in_seconds, 1.03 if aims else None, "copy"))
    rows.append(rounds.row(what + "wall / dd bs=1M conv=fsync, cmp", "ours", "dd 1M", "wall",
                           in_seconds))
    for name, wall, memory in (("swupdate", 1.0, 0.15), ("rauc", None, None)):
        if lacking[name]:
            rows.append(Row(f"{what}wall and peak memory / {name}", note=lacking[name]))
            continue
        row = rounds.row(f"{what}wall / {name}", "ours", name, "wall", in_seconds,
                         wall if aims else None)
        if row.verdict() == "NO":
            row.floor = statistics.median(rounds.ratios("dd", name, "wall"))
            row.note = "floor: dd bs=16k oflag=dsync, cmp"
        rows.append(row)
        rows.append(rounds.row(f"{what}peak memory / {name}", "ours", name, "peak", in_kib,
                               memory))
    return rows


def peak_memory(module: Module) -> Row:
    peaks = [module.service()["peak"] / 1024 for _ in range(MEMORY_ROUNDS)]
    return plain_row("peak memory of an upgrade", peaks, 2.5, "MiB", 2)


def read_back(module: Module, where: str) -> Row:
    world.fill(module.device, module.image)
    rounds = run_rounds({"ours": module.compare, "cmp": module.cmp}, seconds=15)
    return rounds.row(f"{module.size // MIB} MiB, {where}: read-back comparison / cmp", "ours",
                      "cmp", "wall", in_seconds, 1.0)


def growth(programs: Programs, camera: Camera, device: str) -> Row:
    """Returns by how much the peak memory for 256 MiB exceeds that for 16 MiB."""
    modules = [Module(programs, camera, device, size * MIB, 256 * MIB) for size in (16, 64, 256)]
    rounds = [[module.service()["peak"] for module in modules] for _ in range(MEMORY_ROUNDS)]
    usual = ", ".join(f"{statistics.median(peaks):.0f}" for peaks in zip(*rounds))
    return plain_row("16, 64, 256 MiB: peak memory grows by", [peaks[-1] - peaks[0] for peaks in rounds],
                     64, "KiB", note=f"medians {usual} KiB")


def erasing(programs: Programs, device: str, size: int, where: str) -> Row:
    old = world.random_image("old", size)
    world.set_partition("erased", device)

    def zeroed_by(*command) -> dict[str, float]:
        world.fill(device, old)
        return measured(programs, list(command))

    def zeroed_and_flushed() -> dict[str, float]:
        return total(zeroed_by("blkdiscard", "-f", "-z", device),
                     measured(programs, ["sync", "-d", device]))

    rounds = run_rounds({"ours": lambda: zeroed_by(programs.bench / "partition", "erase", "erased"),
                         "blkdiscard": lambda: zeroed_by("blkdiscard", "-f", "-z", device),
                         "flushed": zeroed_and_flushed}, seconds=20)
    row = rounds.row(f"{size // MIB} MiB, {where}: erase / blkdiscard -z", "ours", "blkdiscard",
                     "wall", in_seconds, 1.1)
    if row.verdict() == "NO":
        row.floor = statistics.median(rounds.ratios("flushed", "blkdiscard", "wall"))
        row.note = "floor: blkdiscard -z and a flush, sync -d"
    return row


def request_figures(programs: Programs, camera: Camera) -> list[Row]:
    """Measures the service without its fixed pauses, with the daemon that answers at once."""
    image = world.random_image("new", 16384)
    world.set_partition("kernel", "/run/small")
    Path("/run/small").write_bytes(bytes(16384))
    starts, requests, flushes, nothings = [], [], [], []
    for _ in range(21):
        subprocess.run(["sync"], check=True)  # write the dirty pages of other processes before the measurement
        nothings.append(measured(programs, ["true"])["wall"])
        run = camera.upgrade(image)
        starts.append(run.when("ota wait for ota message") - run.taken["started"])
        requests.append(run.ended - run.when("UPGRADE_LUMO_RECV_MSG"))
        flushes.append(run.when("umount disk") - [t for t, line in run.lines
                                                  if "delete file" in line][-1])

    def row(figure: str, taken: list[float], goal: float, note: str = "") -> Row:
        # These two have no baseline, so other load on the machine adds to them in full. It adds least to
        # the fastest run: the true value is between the fastest run and the median.
        fastest, usual = round(min(taken) * 1000, 1), round(statistics.median(taken) * 1000, 1)
        return Row(figure, value=usual, goal=goal, low=fastest, high=usual, unit="ms",
                   note=f"median and fastest of {len(taken)}{note}")

    flush = f", {min(flushes) * 1000:.1f} ms of it the flush of all file systems"
    nothing = f"; a program that does nothing takes {min(nothings) * 1000:.1f} ms"
    return [row("start to waiting for a request, less its fixed pauses", starts, 15, nothing),
            row("a request with one 16 KiB module, less the fixed pauses", requests, 60, flush)]


def benchmark(program: Path, name: str, key: str) -> dict[str, float]:
    """Runs one micro-benchmark once and returns the result with the name `key`."""
    out = Path("/tmp/benchmark.json")
    subprocess.run([program, f"--benchmark_filter=^{name}$", f"--benchmark_out={out}",
                    "--benchmark_min_time=0.2"], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    return {"time": json.loads(out.read_text())["benchmarks"][0][key]}


def log_figures(programs: Programs) -> list[Row]:
    """Measures CPU time, because waiting for readers must not count. A single thread does all the work."""
    names = ("line_of_service", "line_by_hand", "line_by_hand_with_time", "line_below_level",
             "line_to_empty_call")
    rounds = run_rounds({name: lambda name=name: benchmark(programs.bench / "log_benchmark", name,
                                                           "cpu_time") for name in names},
                        "time", seconds=25)
    line = rounds.row("log line / snprintf, write, nn_send", names[0], names[1], "time", in_ns,
                      1.15)
    if line.verdict() == "NO":
        line.floor = statistics.median(rounds.ratios(names[2], names[1], "time"))
        line.note = "floor: the same with the time looked up"
    below = [a["time"] - b["time"]
             for a, b in zip(rounds.taken[names[3]], rounds.taken[names[4]])]
    return [line,
            rounds.row("log line / the same with the time looked up", names[0], names[2], "time",
                       in_ns),
            Row("log line below the level, more than an empty call",
                in_ns(rounds.median(names[3], "time")), in_ns(rounds.median(names[4], "time")),
                round(statistics.median(below), 2), 3, *(round(x, 2) for x in interval(below)),
                unit="ns")]


def call_figures(programs: Programs) -> list[Row]:
    rows = []
    for callers in (1, 8):
        names = [f"{name}/real_time/threads:{callers}"
                 for name in ("method_call", "ping_pong", "bare_threads")]
        rounds = run_rounds({name: lambda name=name: benchmark(programs.bench / "call_benchmark",
                                                               name, "real_time")
                             for name in names}, "time", seconds=20)
        figure = f"method call, {callers} caller{'s' if callers > 1 else ''}"
        row = rounds.row(f"{figure} / ping-pong on a socket pair", names[0], names[1], "time",
                         in_ns, 1.5)
        if row.verdict() == "NO":
            row.floor = statistics.median(rounds.ratios(names[2], names[1], "time"))
            row.note = "floor: its threads' bare calls"
        rows.append(row)
        rows.append(rounds.row(f"{figure} / its threads' bare calls", names[0], names[2], "time",
                               in_ns))
    return rows
