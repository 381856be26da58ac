"""Measures the duration of each stage of an upgrade with the unmodified service, and draws them as SVG. Also draws
what each release transfers."""
# Name of the stage, text of the line with which it ends, colour of its bar.
STAGES = (
    ("stop the applications (2 s pause)", "ota kill process end", "#8da0cb"),
    ("prepare and check", " start, moudle type", "#e78ac3"),
    ("erase", "flash_mmc_write_partition.", "#e5c494"),
    ("copy", "upgrade success", "#fc8d62"),
    ("read back", "read verify success", "#66c2a5"),
    ("record, slot, delete, flush, settle (5 s pause)", "umount disk", "#a6d854"),
    ("restart (1 s pause)", None, "#b3b3b3"),
)


def stages(camera, image, program) -> list[tuple[str, float]]:
    run = camera.upgrade(image, program)
    result, since = [], run.when("UPGRADE_LUMO_RECV_MSG")
    for name, text, _ in STAGES:
        at = run.ended if text is None else run.when(text)
        result.append((name, at - since))
        since = at
    return result


def draw(taken: list[tuple[str, float]], title: str) -> str:
    width, left, top, height = 860, 20, 44, 46
    whole = sum(seconds for _, seconds in taken)
    colours = {name: colour for name, _, colour in STAGES}
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width + 2 * left}" '
             f'height="{top + height + 34 + 22 * len(taken)}" font-family="sans-serif" '
             f'font-size="14">',
             '<rect width="100%" height="100%" fill="white"/>',
             f'<text x="{left}" y="26" font-weight="bold">{title}</text>']
    at = float(left)
    for row, (name, seconds) in enumerate(taken):
        wide = width * seconds / whole
        parts.append(f'<rect x="{at:.1f}" y="{top}" width="{max(wide, 0.5):.1f}" '
                     f'height="{height}" fill="{colours[name]}"/>')
        at += wide
        y = top + height + 22 + 22 * row
        parts.append(f'<rect x="{left}" y="{y - 2}" width="14" height="14" '
                     f'fill="{colours[name]}"/>')
        parts.append(f'<text x="{left + 24}" y="{y + 10}">{seconds:8.3f} s   {name}</text>')
    return "\n".join(parts + ["</svg>", ""])


def draw_releases(taken: dict[str, list[int]], title: str) -> str:
    """Draws a bar with the bytes of each release for each way to download it."""
    bar, gap, left, top, height = 40, 40, 20, 60, 240
    colours = ("#b3b3b3", "#8da0cb", "#fc8d62")
    most = max(max(counts) for counts in taken.values())
    group = len(taken) * bar + gap
    count = len(next(iter(taken.values())))
    width, bottom = 2 * left + count * group, top + height
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{bottom + 64}" '
             'font-family="sans-serif" font-size="13">',
             '<rect width="100%" height="100%" fill="white"/>',
             f'<text x="{left}" y="26" font-weight="bold">{title}</text>']
    for number in range(count):
        parts.append(f'<text x="{left + number * group}" y="{bottom + 20}">release {number + 1}</text>')
    for place, (name, counts) in enumerate(taken.items()):
        for number, value in enumerate(counts):
            x, tall = left + number * group + place * bar, height * value / most
            parts.append(f'<rect x="{x}" y="{bottom - tall:.1f}" width="{bar - 4}" height="{tall:.1f}" '
                         f'fill="{colours[place]}"/>')
            parts.append(f'<text x="{x + bar / 2 - 2:.0f}" y="{bottom - tall - 5:.1f}" text-anchor="middle">'
                         f'{value / 1e6:.1f}</text>')
        x = left + place * 170
        parts.append(f'<rect x="{x}" y="{bottom + 36}" width="14" height="14" fill="{colours[place]}"/>')
        parts.append(f'<text x="{x + 20}" y="{bottom + 48}">{name}</text>')
    return "\n".join(parts + ["</svg>", ""])


def draw_power(runs: list[dict]) -> str:
    """Draws the requests of all cameras over time after the power has returned: a chart for each state of the server,
    in it a line for each way of choosing the pauses, and the capacity of the server."""
    width, height, left, gap = 860, 200, 96, 90
    downs = sorted({run["down_seconds"] for run in runs})
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 20}" '
             f'height="{len(downs) * (height + gap) + 20}" font-family="sans-serif" font-size="13">',
             '<rect width="100%" height="100%" fill="white"/>']
    for place, down in enumerate(downs):
        shown = [run for run in runs if run["down_seconds"] == down]
        top, span = 50 + place * (height + gap), max(len(run["demanded"]) for run in shown)
        bottom, capacity = top + height, shown[0]["capacity"]
        most = max(4 * capacity, *(max(run["demanded"][60:]) for run in shown))
        server = f"the server is down for {down} s" if down else "the server is healthy"
        parts.append(f'<text x="{left}" y="{top - 14}" font-weight="bold">Power returns to {shown[0]["cameras"]:,} '
                     f'cameras, {server}: requests a second</text>')
        for value, name in ((0, "0"), (capacity, f"capacity {capacity}"), (2 * capacity, "twice")):
            y = bottom - height * value / most
            parts.append(f'<line x1="{left}" y1="{y:.1f}" x2="{left + width}" y2="{y:.1f}" stroke="#b3b3b3"/>')
            parts.append(f'<text x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">{name}</text>')
        for second in range(0, span, 60):
            parts.append(f'<text x="{left + width * second / span:.1f}" y="{bottom + 18}">{second} s</text>')
        for number, run in enumerate(sorted(shown, key=lambda run: run["spread"])):
            colour = "#4daf4a" if run["spread"] else "#fc8d62"
            points = " ".join(f"{left + width * second / span:.1f},{bottom - height * min(value, most) / most:.1f}"
                              for second, value in enumerate(run["demanded"]))
            parts.append(f'<polyline points="{points}" fill="none" stroke="{colour}"/>')
            name = "first poll and retries within the interval" if run["spread"] else "first poll at once, retries up to 1 h"
            parts.append(f'<rect x="{left + 430 * number}" y="{bottom + 28}" width="14" height="14" fill="{colour}"/>')
            parts.append(f'<text x="{left + 430 * number + 20}" y="{bottom + 40}">{name}, first second '
                         f'{run["demanded"][0]}</text>')
    return "\n".join(parts + ["</svg>", ""])
