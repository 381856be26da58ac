"""Measures the cost of the protections in cmake/hardening.cmake: the same programs built with and without."""
import subprocess
from pathlib import Path

import counted
import figures
from pairs import Row, in_ns, run_rounds
from world import Programs


def stripped_size(program: Path) -> float:
    stripped = Path("/tmp/stripped")
    subprocess.run(["strip", "-o", stripped, program], check=True)
    return stripped.stat().st_size / 1000


def counted_rows(programs: Programs) -> list[Row]:
    rows = []
    for figure, mode in (("copied", "write"), ("compared", "compare")):
        own, other = (counted.instructions_per_mib(
            lambda image, _, bench=bench: (bench / "partition", mode, "callgrind", image),
            equal=mode == "compare") for bench in (programs.bench, programs.unhardened / "bench"))
        rows.append(Row(f"instructions per MiB {figure}, hardened / not", f"{own:.0f}", f"{other:.0f}",
                        own / other, 1.01, counted=True))
    own, other = (stripped_size(program) for program in
                  (programs.service, programs.unhardened / "corvo_upgrade"))
    rows.append(Row("size of the service, stripped, hardened / not", f"{own:.1f} KB", f"{other:.1f} KB",
                    own / other, counted=True))
    return rows


def timed_rows(programs: Programs) -> list[Row]:
    rows = []
    for figure, program, name, key in (
            ("log line", "log_benchmark", "line_of_service", "cpu_time"),
            ("method call, 1 caller", "call_benchmark", "method_call/real_time/threads:1", "real_time")):
        things = {which: lambda bench=bench: figures.benchmark(bench / program, name, key)
                  for which, bench in (("hardened", programs.bench),
                                       ("not", programs.unhardened / "bench"))}
        rows.append(run_rounds(things, "time", seconds=15).row(
            f"{figure}, hardened / not", "hardened", "not", "time", in_ns))
    return rows
