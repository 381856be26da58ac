"""Measures `corvo_commit boot` in a committed system, which every start of a camera runs: from its start to the
decision that nothing is to be done. Compared with `rauc status mark-good`, which systems with rauc run at each start,
while its service is running already. Both use the tools of the same boot environment."""
import os
import shutil
import subprocess
import time
from pathlib import Path

from pairs import Row, in_kib, in_seconds, run_rounds
from world import Programs, measured

FIGURE = "start without a decision"
NEEDED = ("rauc", "dbus-daemon")  # of the comparison; both also need fw_setenv
ENVIRONMENT = Path("/run/environment")
OPTIONS = ["--slot-from", "command-line", "--word-a", Path("/proc/cmdline").read_text().split()[0], "--word-b",
           "slot=B", "--state-folder", "/run/commit/"]


def make_environment() -> None:
    ENVIRONMENT.write_bytes(bytes(0x4000))
    Path("/etc/fw_env.config").write_text(f"{ENVIRONMENT} 0x0 0x2000\n{ENVIRONMENT} 0x2000 0x2000\n")
    initial = Path("/run/initial")
    initial.write_text("bootlimit=3\n")
    subprocess.run(["fw_setenv", "-f", initial, "bootsystem", "A"], check=True, capture_output=True)


class Rauc:
    """rauc's service on a bus of its own."""

    def __enter__(self):
        for name in "ab":
            Path(f"/run/slot_{name}").write_bytes(bytes(4096))
        config = Path("/run/rauc.conf")
        config.write_text("[system]\ncompatible=camera\nbootloader=uboot\nstatusfile=/run/rauc.status\n"
                          "[slot.rootfs.0]\ndevice=/run/slot_a\nbootname=A\n"
                          "[slot.rootfs.1]\ndevice=/run/slot_b\nbootname=B\n")
        policy = Path("/run/bus.conf")
        policy.write_text('<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN" '
                          '"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd"><busconfig>'
                          '<type>system</type><listen>unix:path=/run/bus</listen><policy context="default">'
                          '<allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/>'
                          '</policy></busconfig>')
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/run/bus"
        self.processes = [subprocess.Popen(["dbus-daemon", "--nofork", "--config-file", policy],
                                           stderr=subprocess.DEVNULL)]
        self.wait_for(lambda: os.path.exists("/run/bus"))
        self.processes.append(subprocess.Popen(["rauc", "-c", config, "service", "--override-boot-slot=A"],
                                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        self.command = ["rauc", "-c", config, "status", "mark-good"]
        self.wait_for(lambda: subprocess.run(self.command, capture_output=True).returncode == 0)
        return self

    @staticmethod
    def wait_for(check) -> None:
        for _ in range(100):
            if check():
                return
            time.sleep(0.1)
        raise RuntimeError("rauc's service does not start")

    def __exit__(self, *_):
        for process in reversed(self.processes):
            process.kill()
            process.wait()


def rows(programs: Programs) -> list[Row]:
    missing = [name for name in ("fw_setenv", *NEEDED) if shutil.which(name) is None]
    if missing:
        return [Row(f"{FIGURE} / rauc status mark-good", note=f"not installed: {', '.join(missing)}")]
    make_environment()
    boot = [programs.commit, *OPTIONS, "boot"]
    subprocess.run(boot, check=True, capture_output=True)  # commits; from now on there is nothing to decide
    with Rauc() as rauc:
        rounds = run_rounds({"ours": lambda: measured(programs, boot),
                             "rauc": lambda: measured(programs, rauc.command)})
    size, other = (Path(shutil.which(str(program))).stat().st_size / 1000
                   for program in (stripped(programs), "rauc"))
    return [rounds.row(f"{FIGURE}: wall / rauc status mark-good", "ours", "rauc", "wall", in_seconds),
            rounds.row(f"{FIGURE}: peak memory / rauc status mark-good", "ours", "rauc", "peak", in_kib),
            Row("size of corvo_commit, stripped / rauc", f"{size:.1f} KB", f"{other:.0f} KB", size / other,
                counted=True, note="ours contains the C++ run-time library; both without their other libraries")]


def stripped(programs: Programs) -> Path:
    copy = Path("/run/corvo_commit")
    subprocess.run(["strip", "-o", copy, programs.commit], check=True)
    return copy
