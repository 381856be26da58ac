"""Figures that are counted, not timed, and so do not depend on the load of the machine."""
import os
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

from pairs import Row
from world import MIB, SYNCHRONOUS, Camera, Programs, random_image, set_partition

CHUNK = 16384
TRACE, INSTRUCTIONS = Path("/tmp/strace.txt"), Path("/tmp/callgrind.txt")
STRACE = ("strace", "-f", "-qq", "-o", TRACE)
CALLGRIND = ("valgrind", "--log-file=/dev/null", "--tool=callgrind",
             f"--callgrind-out-file={INSTRUCTIONS}")
SIZE_LIMIT = 80  # KB
NEEDED = {"libc", "libnanomsg", "libktmosaic"}


def allocations(programs: Programs) -> list[Row]:
    counted = subprocess.run([programs.bench / "count_allocations"], check=True, text=True,
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE).stderr
    number = {what: float(count) for what, count in re.findall(r"(\w+) ([\d.]+)", counted)}
    return [Row("heap allocations per log line (nanomsg's own)", value=number["log_line"], goal=1,
                unit="calls", counted=True),
            Row("heap allocations per copied chunk", value=number["chunk"], goal=0, unit="calls",
                counted=True),
            Row("heap allocations per method call", value=number["method_call"], goal=3,
                unit="calls", counted=True)]


def make_copy(mib: float, name: str) -> tuple[Path, Path]:
    """Creates an image of `mib` MiB, and a file of the same size as the partition `name`. Both have random
    content."""
    image, part = Path(f"/tmp/{name}.img"), Path(f"/tmp/{name}.part")
    image.write_bytes(os.urandom(int(mib * MIB)))
    part.write_bytes(os.urandom(int(mib * MIB)))
    set_partition(name, str(part))
    return image, part


def traced(trace: Path) -> dict[str, int]:
    """Counts the system calls in an strace output file by name."""
    calls: dict[str, int] = {}
    for name in re.findall(r"^\d+\s+(\w+)\(", trace.read_text(), re.MULTILINE):
        calls[name] = calls.get(name, 0) + 1
    return calls


def calls_of_copy(programs: Programs, chunks: int) -> dict[str, int]:
    """Counts the system calls of a process that copies `chunks` chunks to a partition."""
    image, _ = make_copy(chunks * CHUNK / MIB, "strace")
    subprocess.run([*STRACE, programs.bench / "partition", "write", "strace", image], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return traced(TRACE)


def system_calls(programs: Programs) -> Row:
    """Compares a small with a large copy: the difference is the cost of the additional chunks. Both copies
    print ten progress lines, so these cancel out."""
    figure = "system calls per copied 16 KiB chunk, without the progress lines"
    if shutil.which("strace") is None:
        return Row(figure, counted=True, note="not installed: strace")
    few, many, more = 64, 1024, 960
    try:
        before, after = calls_of_copy(programs, few), calls_of_copy(programs, many)
    except subprocess.CalledProcessError:
        return Row(figure, counted=True, note="strace is not permitted here")
    grown = {name: (count - before.get(name, 0)) / more for name, count in after.items()}
    note = ", ".join(f"{count:g} {name}" for name, count in sorted(grown.items()) if count != 0)
    return Row(figure, value=sum(grown.values()), goal=2, unit="calls", counted=True, note=note)


def counted_instructions() -> int:
    return int(re.search(r"^totals: (\d+)", INSTRUCTIONS.read_text(), re.MULTILINE)[1])


def instructions_per_mib(command, equal: bool) -> float:
    """Returns the instructions per MiB from the difference between 32 and 16 MiB, so that the start of the
    program cancels out. `equal`: the partition already contains the image."""
    taken = []
    for mib in (16, 32):
        image, part = make_copy(mib, "callgrind")
        if equal:
            part.write_bytes(image.read_bytes())
        subprocess.run([*CALLGRIND, *command(image, part)], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        taken.append(counted_instructions())
    return (taken[1] - taken[0]) / 16


def instructions(programs: Programs) -> list[Row]:
    def copy(image, _): return programs.bench / "partition", "write", "callgrind", image
    def compare(image, _): return programs.bench / "partition", "compare", "callgrind", image
    def dd(image, part): return "dd", *SYNCHRONOUS, f"if={image}", f"of={part}"
    def cmp(image, part): return "cmp", image, part

    rows = []
    for figure, ours, baseline, equal in (("copied / dd bs=16k oflag=dsync", copy, dd, False),
                                          ("compared / cmp", compare, cmp, True)):
        own, other = (instructions_per_mib(command, equal) for command in (ours, baseline))
        rows.append(Row(f"instructions per MiB {figure}", f"{own:.0f}", f"{other:.0f}",
                        own / other, 1, counted=True))
    return rows


def off_line(sizes: tuple, values: list[float]) -> float:
    """Fits a straight line value = a + b * size, and returns the largest relative distance from it in percent.
    The fit minimises the squares of the relative distances: it solves the normal equations with the
    weights 1 / value^2."""
    weights = [1 / value ** 2 for value in values]
    sums = [sum(w * s ** power for w, s in zip(weights, sizes)) for power in range(3)]
    right = [sum(w * y * s ** power for w, s, y in zip(weights, sizes, values))
             for power in range(2)]
    determinant = sums[0] * sums[2] - sums[1] ** 2
    base = (right[0] * sums[2] - right[1] * sums[1]) / determinant
    slope = (sums[0] * right[1] - sums[1] * right[0]) / determinant
    return 100 * max(abs(base + slope * s - y) / y for s, y in zip(sizes, values))


def growth(programs: Programs) -> list[Row]:
    """Whole upgrades with one module of each size, onto a partition of the same size."""
    sizes = (16, 64, 256)
    camera = Camera(programs)
    taken: dict[str, list[float]] = {"instructions": [], "system calls": []}
    for size in sizes:
        image = random_image("new", size * MIB)
        partition = random_image("partition", size * MIB)
        set_partition("kernel", str(partition))
        camera.upgrade(image, under=CALLGRIND)
        taken["instructions"].append(counted_instructions())
        camera.upgrade(image, under=STRACE)
        taken["system calls"].append(sum(traced(TRACE).values()))
        partition.unlink()
        image.unlink()
    camera.close()
    return [Row(f"16, 64, 256 MiB: {what} off a straight line", value=round(off_line(sizes, counts), 2),
                goal=5, unit="%", counted=True, note=", ".join(str(count) for count in counts))
            for what, counts in taken.items()]


def switches(pid: int) -> int:
    """Counts the voluntary and involuntary context switches of all threads of a process."""
    return sum(int(count) for task in Path(f"/proc/{pid}/task").iterdir()
               for count in re.findall(r"ctxt_switches:\s+(\d+)", (task / "status").read_text()))


def idle(programs: Programs, seconds: int) -> Row:
    """Measures the unmodified service while it waits for a request."""
    camera = Camera(programs)
    with tempfile.TemporaryFile() as output:
        service = subprocess.Popen([programs.service], stdout=output)
        while True:
            time.sleep(0.2)
            output.seek(0)
            if b"ota wait for ota message" in output.read():
                break
        time.sleep(0.5)
        before = switches(service.pid)
        time.sleep(seconds)
        count = switches(service.pid) - before
    service.kill()
    service.wait()
    camera.close()
    return Row(f"context switches of the waiting service in {seconds} s", value=count, goal=0,
               unit="times", counted=True)


def size_and_libraries(programs: Programs) -> list[Row]:
    stripped = Path("/tmp/stripped")
    subprocess.run(["strip", "-o", stripped, programs.service], check=True)
    kilobytes = stripped.stat().st_size / 1000

    def size_of(program: str) -> str:
        path = shutil.which(program)
        return "-" if path is None else f"{Path(path).stat().st_size / 1000:.0f} KB"

    rows = [Row("size of the service, stripped", f"{kilobytes:.1f} KB", size_of("swupdate"),
                round(kilobytes, 1), SIZE_LIMIT, unit="KB", counted=True,
                note=f"baseline swupdate; rauc {size_of('rauc')}; both without their libraries")]
    dynamic = subprocess.run(["readelf", "-d", programs.service], check=True, text=True,
                             capture_output=True).stdout
    names = re.findall(r"\(NEEDED\).*\[(lib\w+)[^\]]*\]", dynamic)
    foreign = [name for name in names if name not in NEEDED]

    def libraries_of(program: str) -> str:
        path = shutil.which(program)
        if path is None:
            return "-"
        listed = subprocess.run(["ldd", path], text=True, capture_output=True).stdout
        return str(listed.count("=>"))

    rows.append(Row("shared libraries beyond libc, nanomsg and the platform's", str(len(names)),
                    libraries_of("swupdate"), len(foreign), 0, unit="libraries", counted=True,
                    note=f"needs {', '.join(names)}; rauc loads {libraries_of('rauc')}"))
    return rows
