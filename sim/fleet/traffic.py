"""How many bytes each camera and the server exchanged, from the log of nginx, headers included (without TLS)."""
import re
from collections.abc import Iterator
from pathlib import Path

from camera import Camera

REQUEST = re.compile(r"[^|]*\|/[^/]+/controller/(?:artifacts/)?v1/([^/?|]+)[^|]*\|(\d+) (\d+)$")
# Of the images of a second version, which changed in a few places: the largest part that may be transferred.
MOST_PERCENT = 20
MOST_PERCENT_WITH_CUTS = 60  # what was not flushed is transferred again

HEAD = f"  {'':<5}  {'camera':<10}  requests  bytes sent  bytes received  of the images"


class Traffic:
    def __init__(self, requests: Path, images: int):
        """Counts from now on. `images`: bytes of all images of the package."""
        self.requests, self.images, self.most = requests, images, 0
        self.begin = requests.stat().st_size if requests.exists() else 0

    def limit(self, percent: int) -> None:
        self.most = self.images * percent // 100

    def lines(self, cameras: list[Camera], wrong: list[str]) -> Iterator[str]:
        """Returns the lines of a table; adds each camera that received too much to `wrong`."""
        counted = {camera.name: [0, 0, 0] for camera in cameras}
        with open(self.requests, encoding="utf-8", errors="replace") as log:
            log.seek(self.begin)
            for line in log:
                if (found := REQUEST.match(line)) and found[1] in counted:
                    row = counted[found[1]]
                    row[0] += 1
                    row[1] += int(found[2])
                    row[2] += int(found[3])
        yield HEAD
        for camera in cameras:
            count, sent, received = counted[camera.name]
            bad = received == 0 or (self.most and received > self.most)
            if bad:
                wrong.append(f"{camera.name}: received {received} bytes, expected at most {self.most or 'some'}")
            yield (f"  {'WRONG' if bad else 'ok':<5}  {camera.name:<10}  {count:>8}  {sent:>10}  {received:>14}"
                   f"  {100 * received / self.images:>11.1f} %")
