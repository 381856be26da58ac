"""Draws a rollout over time as SVG: a bar for each camera, coloured by stage."""
from html import escape

from camera import Camera

# (text, name in the legend, colour): the first row whose text is part of the stage's name applies.
KINDS = (
    ("power cut", "no power", "#000000"),
    ("waits for its turn", "waiting", "#eeeeee"),
    ("start", "starting", "#b3b3b3"),  # and "restarting"
    ("downloading", "downloading", "#8da0cb"),
    ("downloaded and verified", "verified", "#e78ac3"),
    ("request posted", "stopping the applications", "#e5c494"),
    ("stopping", "stopping the applications", "#e5c494"),
    ("writing", "writing", "#fc8d62"),
    ("reading", "reading back", "#66c2a5"),
    ("slot switched", "settling (5 s)", "#ffd92f"),
    ("success", "success", "#4daf4a"),
    ("failure", "failure", "#e41a1c"),
    ("", "offered, others", "#c6b8e0"),
)
LEFT, TOP, WIDTH, ROW = 90, 60, 900, 18


def kind_of(stage: str) -> tuple[str, str, str]:
    return next(kind for kind in KINDS if kind[0] in stage)


def tick(seconds: float) -> float:
    """Returns the distance of the ticks in seconds: the first of 1, 2, 5, 10, ... with at most ten ticks."""
    step = 1.0
    for factor in (2, 2.5, 2) * 5:
        if seconds / step <= 10:
            break
        step *= factor
    return step


def draw(cameras: list[Camera], title: str, began: float, ended: float) -> str:
    span = max(ended - began, 0.001)
    used = {kind_of(stage)[1:] for camera in cameras for _, stage in camera.changes}
    bottom = TOP + ROW * len(cameras)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{LEFT + WIDTH + 20}" '
             f'height="{bottom + 64}" font-family="sans-serif" font-size="12">',
             '<rect width="100%" height="100%" fill="white"/>',
             f'<text x="{LEFT}" y="24" font-size="15" font-weight="bold">{escape(title)}</text>']
    step, at = tick(span), 0.0
    while at <= span:
        x = LEFT + WIDTH * at / span
        parts.append(f'<line x1="{x:.1f}" y1="{TOP - 6}" x2="{x:.1f}" y2="{bottom}" stroke="#dddddd"/>')
        parts.append(f'<text x="{x:.1f}" y="{TOP - 10}" text-anchor="middle">{at:g} s</text>')
        at += step
    for row, camera in enumerate(cameras):
        y = TOP + ROW * row
        if row and camera.group != cameras[row - 1].group:
            parts.append(f'<line x1="0" y1="{y}" x2="{LEFT + WIDTH}" y2="{y}" stroke="#555555"/>')
        parts.append(f'<text x="{LEFT - 8}" y="{y + 13}" text-anchor="end">{escape(camera.name)}</text>')
        ends = [when for when, _ in camera.changes[1:]] + [ended]
        for (when, stage), end in zip(camera.changes, ends):
            x = LEFT + WIDTH * max(when - began, 0) / span
            wide = max(WIDTH * (end - max(when, began)) / span, 0.5)
            parts.append(f'<rect x="{x:.1f}" y="{y + 2}" width="{wide:.1f}" height="{ROW - 4}" '
                         f'fill="{kind_of(stage)[2]}"><title>{escape(stage)}, '
                         f'{end - when:.1f} s</title></rect>')
    x, y = LEFT, bottom + 20
    for name, colour in dict.fromkeys(kind[1:] for kind in KINDS if kind[1:] in used):
        wide = 32 + 7 * len(name)
        if x + wide > LEFT + WIDTH:
            x, y = LEFT, y + 20
        parts.append(f'<rect x="{x}" y="{y}" width="12" height="12" fill="{colour}" stroke="#999999"/>')
        parts.append(f'<text x="{x + 17}" y="{y + 10}">{name}</text>')
        x += wide
    return "\n".join([*parts, "</svg>", ""])
