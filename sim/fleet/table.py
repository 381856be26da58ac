"""Shows the stages of the cameras: on a terminal a table that is redrawn in place, otherwise a line for each
stage that a camera enters."""
import shutil
import sys
import time

from camera import Camera

BAR = 20
LEAST_SECONDS = 0.2  # between two drawings
QUIET = ("off", "waits for its turn")  # stages without a line


class Table:
    def __init__(self, cameras: list[Camera], output=sys.stdout):
        self.cameras, self.output = cameras, output
        self.live = output.isatty()
        self.began = time.monotonic()
        self.drawn = 0  # lines on the terminal
        self.drawn_at = 0.0
        self.printed = {camera.name: 0 for camera in cameras}  # number of changes that were printed

    def clear(self) -> None:
        if self.drawn:
            self.output.write(f"\x1b[{self.drawn}A\x1b[J")
            self.drawn = 0

    def show(self, head: str) -> None:
        if not self.live:
            self.print_changes()
            return
        if time.monotonic() - self.drawn_at < LEAST_SECONDS:
            return
        self.drawn_at = time.monotonic()
        columns, rows = shutil.get_terminal_size()
        lines = self.lines(f"{head}, {time.monotonic() - self.began:.0f} s", rows - 1)
        self.clear()
        self.output.write("".join(f"{line[:columns - 1]}\n" for line in lines))
        self.output.flush()
        self.drawn = len(lines)

    def lines(self, head: str, most: int) -> list[str]:
        shown = self.cameras
        room = most - 3
        if len(shown) > room:
            # If the terminal is too small, show the cameras that are busy.
            def busy(camera: Camera) -> bool:
                return camera.percent is not None or (
                    camera.changes != [] and time.monotonic() - camera.changes[-1][0] < 15)
            shown = sorted(shown, key=lambda camera: (not busy(camera), camera.name))[:max(room, 1)]
            shown.sort(key=lambda camera: camera.name)
        lines = [head, f"{'camera':<10} {'group':>5} {'action':>6}  {'stage':<44} {'':<{BAR}} percent"]
        lines += [self.row(camera) for camera in shown]
        if len(shown) < len(self.cameras):
            lines.append(f"... and {len(self.cameras) - len(shown)} more")
        return lines

    def row(self, camera: Camera) -> str:
        bar = percent = ""
        if camera.percent is not None:
            bar = "#" * (BAR * camera.percent // 100)
            percent = f"{camera.percent} %"
        return (f"{camera.name:<10} {camera.group or '-':>5} {camera.action or '-':>6}  "
                f"{camera.stage[:44]:<44} {bar:<{BAR}} {percent:>7}")

    def print_changes(self) -> None:
        if self.live:
            return
        for camera in self.cameras:
            for when, stage in camera.changes[self.printed[camera.name]:]:
                if stage not in QUIET:
                    action = f"action {camera.action}: " if camera.action else ""
                    print(f"{when - self.began:7.1f} s  {camera.name}  {action}{stage}",
                          file=self.output, flush=True)
            self.printed[camera.name] = len(camera.changes)
