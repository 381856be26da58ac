"""Figures that do not depend on how busy the machine is: what is counted, not timed."""
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

from pairs import Row
from world import Camera, Programs, set_partition

CHUNK = 16384
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


def calls_of_copy(programs: Programs, chunks: int) -> dict[str, int]:
    """The system calls of the process that copies so many chunks to a partition."""
    image, part = Path("/tmp/strace.img"), Path("/tmp/strace.part")
    image.write_bytes(b"i" * (chunks * CHUNK))
    part.write_bytes(b"p" * (chunks * CHUNK))
    set_partition("strace", str(part))
    trace = Path("/tmp/strace.txt")
    subprocess.run(["strace", "-f", "-qq", "-o", trace, programs.bench / "partition", "write",
                    "strace", image], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    calls: dict[str, int] = {}
    for name in re.findall(r"^\d+\s+(\w+)\(", trace.read_text(), re.MULTILINE):
        calls[name] = calls.get(name, 0) + 1
    return calls


def system_calls(programs: Programs) -> Row:
    """What more chunks cost more: both copies print a line at each tenth, so these drop out."""
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


def switches(pid: int) -> int:
    """Of all threads, voluntary and not."""
    return sum(int(count) for task in Path(f"/proc/{pid}/task").iterdir()
               for count in re.findall(r"ctxt_switches:\s+(\d+)", (task / "status").read_text()))


def idle(programs: Programs, seconds: int) -> Row:
    """The service as it is delivered, waiting for a request."""
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
