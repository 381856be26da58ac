"""Other programs that write an image to a partition: swupdate's raw handler and rauc's write-slot,
each set up as its manual page says."""
import os
import shutil
import subprocess
from pathlib import Path

from world import Programs, measured

SIGNER = Path("/tmp/signer")


def missing(*programs: str) -> str:
    """The programs that are not there, for a line of the table; empty when all are."""
    absent = [p for p in programs if shutil.which(p) is None]
    return f"not installed: {', '.join(absent)}" if absent else ""


def quietly(*command, **more) -> None:
    subprocess.run(command, check=True, capture_output=True, **more)


def make_signer() -> None:
    """A key and a certificate that says what it is for, as swupdate asks of a signer."""
    if SIGNER.exists():
        return
    SIGNER.mkdir()
    # The private root has no configuration of openssl, and the desk's is not asked.
    config = SIGNER / "openssl.cnf"
    config.write_text("[req]\ndistinguished_name = name\n[name]\n")
    os.environ["OPENSSL_CONF"] = str(config)
    quietly("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
            "/CN=bench", "-addext", "extendedKeyUsage=emailProtection", "-addext",
            "keyUsage=digitalSignature", "-keyout", SIGNER / "key.pem", "-out", SIGNER / "cert.pem")


class Swupdate:
    needs = ("swupdate", "openssl", "cpio")

    def __init__(self, image: Path, device: str, folder: Path = Path("/tmp/swupdate")):
        make_signer()
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        digest = subprocess.run(["sha256sum", image], check=True, capture_output=True, text=True)
        description = folder / "sw-description"
        description.write_text(
            'software = { version = "1.0"; hardware-compatibility: [ "1.0" ]; '
            'images: ( { filename = "kernel.bin"; '
            f'device = "{device}"; type = "raw"; sha256 = "{digest.stdout.split()[0]}"; }} ); }}\n')
        (folder / "kernel.bin").symlink_to(image)
        quietly("openssl", "cms", "-sign", "-in", description, "-out",
                folder / "sw-description.sig", "-signer", SIGNER / "cert.pem", "-inkey",
                SIGNER / "key.pem", "-outform", "DER", "-nosmimecap", "-binary")
        self.package = folder / "camera.swu"
        with open(self.package, "wb") as out:
            # The description must come first.
            subprocess.run(["cpio", "-o", "-L", "-H", "crc"], check=True, cwd=folder, stdout=out,
                           input=b"sw-description\nsw-description.sig\nkernel.bin\n",
                           stderr=subprocess.DEVNULL)

    def run(self, programs: Programs) -> dict[str, float]:
        return measured(programs, ["swupdate", "-l", "1", "-M", "-m", "-H", "camera:1.0", "-k",
                                   SIGNER / "cert.pem", "-i", self.package])


class Rauc:
    needs = ("rauc",)

    def __init__(self, image: Path, device: str):
        self.config = Path("/tmp/rauc.conf")
        self.image = Path("/tmp/rauc.img")  # the suffix tells rauc how to write it
        self.image.unlink(missing_ok=True)
        self.image.symlink_to(image)
        self.config.write_text("[system]\ncompatible=camera\nbootloader=noop\n"
                               f"[slot.kernel.0]\ndevice={device}\ntype=raw\n")

    def run(self, programs: Programs) -> dict[str, float]:
        return measured(programs, ["rauc", "-c", self.config, "write-slot", "kernel.0", self.image])
