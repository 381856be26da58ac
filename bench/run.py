"""Measures all figures and prints the table; started by scripts/bench inside scripts/private_root.

    run.py BUILD WORK [--quick]     BUILD: the build folder; WORK: a folder on disk
"""
import argparse
import json
import os
import subprocess
import sys
import time
from dataclasses import asdict
from pathlib import Path

import commit
import counted
import figures
import hardening
import picture
import record
import signed
from pairs import Row, print_head, print_row
from world import MIB, SYNCHRONOUS, Camera, Loops, Programs

IDLE_SECONDS, IDLE_SECONDS_QUICK = 60, 5
# The duration of a synchronous write depends on how fast the disk flushes. If a run takes longer than this,
# the image is halved, because otherwise six rounds of all programs take more than ten minutes.
LONGEST_RUN = 4  # seconds
SIZES = (64, 32, 16, 8, 4)  # MiB


def module_on_disk(programs: Programs, camera: Camera, device: str, room: int) -> figures.Module:
    """Returns the largest module that is copied within LONGEST_RUN."""
    for size in SIZES:
        module = figures.Module(programs, camera, device, size * MIB, room)
        if module.dd(*SYNCHRONOUS)["wall"] < LONGEST_RUN:
            break
    return module


def timed(programs: Programs, work: Path, show) -> dict:
    camera, loops = Camera(programs), Loops()
    facts: dict = {}
    try:
        for row in (figures.log_figures(programs) + figures.call_figures(programs) +
                    hardening.timed_rows(programs)):
            show(row)
        for row in figures.request_figures(programs, camera):
            show(row)
        show(signed.timed_row(programs))
        for row in commit.rows(programs):
            show(row)
        disk = loops.attach(work / "disk", 64 * MIB)
        twice = loops.attach(work / "twice", 128 * MIB)
        erased = loops.attach(work / "erased", 256 * MIB)
        memory = loops.attach(Path("/run/memory"), 64 * MIB)
        memory_large = loops.attach(Path("/run/memory_large"), 256 * MIB)

        in_memory = figures.Module(programs, camera, memory, 64 * MIB, 64 * MIB)
        for row in figures.module_figures(in_memory, "in memory", 40, aims=False):
            show(row)
        show(figures.peak_memory(in_memory))
        show(figures.growth(programs, camera, memory_large))
        on_disk = module_on_disk(programs, camera, disk, 64 * MIB)
        for row in figures.module_figures(on_disk, "on disk", 60):
            show(row)
        wide = module_on_disk(programs, camera, twice, 128 * MIB)
        for row in figures.module_figures(wide, "on disk, twice the room", 40,
                                          only_dd=True):
            show(row)
        whole = figures.Module(programs, camera, disk, 64 * MIB, 64 * MIB)
        show(figures.read_back(whole, "on disk"))
        show(figures.erasing(programs, erased, 256 * MIB, "on disk"))
        shown = figures.Module(programs, camera, disk, on_disk.size, 64 * MIB)
        facts["size"] = shown.size // MIB
        facts["flush"] = shown.flush_time()
        facts["stages"] = picture.stages(camera, shown.image, programs.service)
    except OSError as reason:
        show(Row("figures on a block device", note=str(reason)))
    finally:
        camera.close()
        loops.detach_all()
    return facts


def main() -> int:
    arguments = argparse.ArgumentParser()
    arguments.add_argument("build", type=Path)
    arguments.add_argument("work", type=Path)
    arguments.add_argument("--quick", action="store_true")
    options = arguments.parse_args()
    if not os.path.exists("/.private_root"):
        sys.exit("run.py: runs only inside scripts/private_root")
    programs = Programs(options.build)
    rows: list[Row] = []

    def show(row: Row) -> None:
        rows.append(row)
        print_row(row, sys.stdout)

    try:
        os.nice(-10)  # for all measured programs alike, so that other load interrupts them less
    except PermissionError:
        pass
    began = time.monotonic()
    about = record.machine()
    print("\n".join(about))
    print_head(sys.stdout)
    for row in counted.allocations(programs):
        show(row)
    show(counted.system_calls(programs))
    for row in (counted.instructions(programs) + hardening.counted_rows(programs) +
                counted.growth(programs) + signed.counted_rows(programs)):
        show(row)
    for row in counted.size_and_libraries(programs):
        show(row)
    show(counted.idle(programs, IDLE_SECONDS_QUICK if options.quick else IDLE_SECONDS))
    facts = {} if options.quick else timed(programs, options.work, show)

    missed = [row.figure for row in rows if row.verdict() == "NO"]
    unclear = [row for row in rows if row.verdict() == "unclear"]
    print(f"{len(rows)} figures, {len(missed)} missed, {len(unclear)} unclear, "
          f"{time.monotonic() - began:.0f} s")
    if not options.quick:
        (options.work / "result.json").write_text(json.dumps(
            {"machine": about, **facts,
             "rows": [{**asdict(row), "verdict": row.verdict()} for row in rows]}, indent=1))
    return 1 if missed else 0


sys.exit(main())
