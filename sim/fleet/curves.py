"""Draws curves as SVG."""
import math
from html import escape

LEFT, TOP, WIDTH, HEIGHT = 80, 56, 760, 320
COLOURS = ("#4daf4a", "#377eb8", "#ff7f00", "#e41a1c", "#984ea3", "#a65628")


class Axis:
    """One axis, from 0 to its largest value, or logarithmic over whole decades."""

    def __init__(self, values: list[float], name: str, logarithmic: bool):
        self.name, self.logarithmic = name, logarithmic
        if logarithmic:
            first, last = (rounded(math.log10(edge)) for edge, rounded in
                           ((min(values), math.floor), (max(values), math.ceil)))
            self.low, self.high = float(first), float(max(last, first + 1))
            self.ticks = [10.0 ** power for power in range(first, int(self.high) + 1)]
            return
        step = 10 ** math.floor(math.log10(max(values)))
        step = next(step * part for part in (0.1, 0.2, 0.25, 0.5, 1, 2) if max(values) <= 10 * step * part)
        self.low, self.high = 0.0, step * math.ceil(max(values) / step)
        self.ticks = [step * number for number in range(round(self.high / step) + 1)]

    def part(self, value: float) -> float:
        place = math.log10(value) if self.logarithmic else value
        return (place - self.low) / (self.high - self.low)


def draw(title: str, curves: dict[str, list[tuple[float, float]]], names: tuple[str, str],
         logarithmic: bool = False) -> str:
    """`curves`: points of each curve, by its name. `names`: of the two axes."""
    points = [point for curve in curves.values() for point in curve]
    across, up = (Axis([point[at] for point in points], names[at], logarithmic) for at in (0, 1))
    bottom = TOP + HEIGHT
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{LEFT + WIDTH + 30}" '
             f'height="{bottom + 54 + 20 * len(curves)}" font-family="sans-serif" font-size="13">',
             '<rect width="100%" height="100%" fill="white"/>',
             f'<text x="{LEFT}" y="24" font-size="15" font-weight="bold">{escape(title)}</text>',
             f'<text x="{LEFT}" y="{TOP - 12}" text-anchor="middle">{escape(up.name)}</text>',
             f'<text x="{LEFT + WIDTH}" y="{bottom + 38}" text-anchor="end">{escape(across.name)}</text>']
    for tick in across.ticks:
        x = LEFT + WIDTH * across.part(tick)
        parts.append(f'<line x1="{x:.1f}" y1="{TOP}" x2="{x:.1f}" y2="{bottom}" stroke="#dddddd"/>')
        parts.append(f'<text x="{x:.1f}" y="{bottom + 18}" text-anchor="middle">{tick:,.10g}</text>')
    for tick in up.ticks:
        y = bottom - HEIGHT * up.part(tick)
        parts.append(f'<line x1="{LEFT}" y1="{y:.1f}" x2="{LEFT + WIDTH}" y2="{y:.1f}" stroke="#dddddd"/>')
        parts.append(f'<text x="{LEFT - 8}" y="{y + 5:.1f}" text-anchor="end">{tick:,.10g}</text>')
    for number, (name, curve) in enumerate(curves.items()):
        colour, y = COLOURS[number % len(COLOURS)], bottom + 50 + 20 * number
        line = " ".join(f"{LEFT + WIDTH * across.part(x):.1f},{bottom - HEIGHT * up.part(y):.1f}" for x, y in curve)
        parts.append(f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2.5"/>')
        parts.append(f'<rect x="{LEFT}" y="{y}" width="14" height="14" fill="{colour}"/>')
        parts.append(f'<text x="{LEFT + 22}" y="{y + 12}">{escape(name)}</text>')
    return "\n".join([*parts, "</svg>", ""])
