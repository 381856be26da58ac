"""Writes the figures of a run into a page: the table between its two marks, and the picture. A page with several
tables has several pairs of marks; the result names the one of its table. Figures that simulations use are also written
into sim/fleet/measured.json.

    record.py RESULT.json DOCUMENT.md [PICTURE.svg]
"""
import json
import os
import sys
from pathlib import Path

import picture
from pairs import Row, shown_interval, shown_value

MEASURED = Path(__file__).resolve().parents[1] / "sim/fleet/measured.json"
MARKS = "<!-- figures of {}: {} -->"


def machine() -> list[str]:
    cpu = [line.split(":")[1].strip() for line in Path("/proc/cpuinfo").read_text().splitlines()
           if line.startswith("model name")]
    memory = Path("/proc/meminfo").read_text().split()[1]
    load = " ".join(Path("/proc/loadavg").read_text().split()[:3])
    return [f"{len(cpu)} x {cpu[0] if cpu else os.uname().machine}, {int(memory) // 1024} MiB, "
            f"Linux {os.uname().release}", f"load before the run: {load}"]


def table(result: dict) -> str:
    lines = [*result["machine"]]
    if "flush" in result:
        lines.append("one synchronous 16 KiB write to the disk: "
                     f"{1000 * result['flush']:.2f} ms")
    lines = [f"- {line}" for line in lines] + [""]
    if "lines" in result:
        return "\n".join(lines + result["lines"])
    lines += ["| Figure | Ours | Baseline | Ratio | 95 % interval | Goal | ok |",
              "|---|---|---|---|---|---|---|"]
    for taken in result["rows"]:
        verdict = taken.pop("verdict")
        row = Row(**taken)
        row.figure = row.figure.replace("|", "\\|")  # a plain "|" would end the table cell
        if row.value is None:
            lines.append(f"| {row.figure} | | | | | | skipped: {row.note} |")
            continue
        goal = "" if row.goal is None else f"<= {row.goal:g}"
        floor = "" if row.floor is None else f", floor {row.floor:.2f}"
        reason = f": {row.note}" if verdict == "NO" and row.note else ""
        lines.append(f"| {row.figure} | {row.ours} | {row.baseline} | {shown_value(row)} "
                     f"| {shown_interval(row)} | {goal} | {verdict}{floor}{reason} |")
    return "\n".join(lines)


def main() -> None:
    result_file, document, *drawing = (Path(name) for name in sys.argv[1:])
    result = json.loads(result_file.read_text())
    for file in drawing:
        if "releases" in result:
            file.write_text(picture.draw_releases(result["releases"], "Transferred to a camera by each release, MB"))
            continue
        if "power" in result:
            if result["power"]:
                file.write_text(picture.draw_power(result["power"]))
            continue
        file.write_text(picture.draw(
            result["stages"], f"One upgrade by stages: one module of {result['size']} MiB, "
            f"{1000 * result['flush']:.2f} ms per synchronous 16 KiB"))
    if "measured" in result:
        measured = json.loads(MEASURED.read_text()) if MEASURED.exists() else {}
        MEASURED.write_text(json.dumps({**measured, **result["measured"]}, indent=1) + "\n")
    begin, end = (MARKS.format(result.get("of", "a run"), mark) for mark in ("begin", "end"))
    text = document.read_text()
    head, found, rest = text.partition(begin)
    if not found:
        sys.exit(f"record: {document} has no {begin}")
    _, _, tail = rest.partition(end)
    document.write_text(f"{head}{begin}\n{table(result)}\n{end}{tail}")


if __name__ == "__main__":
    main()
